#include "FileSystem/DiskEncryption.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>
#include <set>

#include "FileSystem/MountTable.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

std::string deviceName(dev_t device) {
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

std::optional<std::string> firstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!file || !std::getline(file, line)) return std::nullopt;
    return line;
}

// A dm-crypt device, or a device-mapper layer above one; partitions and disks below are not
// encryption. `seen` stops a looping /sys.
bool isEncrypted(const std::string& blockDevices, const std::string& device,
                 std::set<std::string>& seen) {
    if (!seen.insert(device).second || seen.size() > 64) return false;
    std::string folder = blockDevices + "/" + device;
    auto uuid = firstLine(folder + "/dm/uuid");
    if (!uuid) return false;
    if (uuid->starts_with("CRYPT-")) return true;
    DIR* slaves = opendir((folder + "/slaves").c_str());
    if (!slaves) return false;
    bool encrypted = false;
    while (dirent* entry = readdir(slaves)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        auto number = firstLine(folder + "/slaves/" + name + "/dev");
        if (number && isEncrypted(blockDevices, *number, seen)) {
            encrypted = true;
            break;
        }
    }
    closedir(slaves);
    return encrypted;
}

}  // namespace

std::optional<bool> DiskEncryption::protects(const std::string& path) {
    return protects(path, "/proc/self/mountinfo", "/sys/dev/block");
}

std::optional<bool> DiskEncryption::protects(const std::string& path, const std::string& mountTable,
                                             const std::string& blockDevices) {
    try {
        struct stat info {};
        if (stat(path.c_str(), &info) != 0) return std::nullopt;
        auto mount =
            MountTable::containing(MountTable::read(mountTable), realPath(path), info.st_dev);
        if (!mount) return std::nullopt;
        // Btrfs and friends report an anonymous device; the source names the real one.
        dev_t device = mount->device;
        struct stat source {};
        if (stat(mount->source.c_str(), &source) == 0 && S_ISBLK(source.st_mode))
            device = source.st_rdev;
        if (major(device) == 0) return false;
        std::set<std::string> seen;
        struct stat sys {};
        if (stat((blockDevices + "/" + deviceName(device)).c_str(), &sys) != 0) return std::nullopt;
        return isEncrypted(blockDevices, deviceName(device), seen);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace corvane
