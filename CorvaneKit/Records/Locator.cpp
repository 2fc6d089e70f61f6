#include "Records/Locator.h"

#include <dirent.h>
#include <sys/stat.h>

#include <memory>

#include "Records/JSONCodec.h"

namespace corvane {

std::optional<std::vector<std::uint8_t>> Locator::make(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return std::nullopt;
    nlohmann::ordered_json record = {
        {"device", static_cast<std::uint64_t>(status.st_dev)},
        {"inode", static_cast<std::uint64_t>(status.st_ino)},
        {"path", path},
    };
    try {
        std::string text = JSONCodec::encodeCompact(record);
        return std::vector<std::uint8_t>(text.begin(), text.end());
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    }
}

std::optional<std::string> Locator::resolve(const std::vector<std::uint8_t>& locator) {
    std::uint64_t device = 0, inode = 0;
    std::string path;
    try {
        auto record = JSONCodec::decode(std::string(locator.begin(), locator.end()));
        JSONFields::object(record, "locator");
        device = JSONFields::uint64(JSONFields::required(record, "device"), "device");
        inode = JSONFields::uint64(JSONFields::required(record, "inode"), "inode");
        path = JSONFields::requiredString(record, "path");
    } catch (const DecodingError&) {
        return std::nullopt;
    }
    // The system would see a shorter path than the one handed back.
    if (path.find('\0') != std::string::npos) return std::nullopt;
    auto isTheItem = [&](const std::string& candidate) {
        struct stat status {};
        return lstat(candidate.c_str(), &status) == 0 && status.st_dev == device &&
               status.st_ino == inode;
    };
    if (isTheItem(path)) return path;

    auto slash = path.rfind('/');
    if (slash == std::string::npos) return std::nullopt;
    std::string folder = slash == 0 ? "/" : path.substr(0, slash);
    std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
    if (!directory) return std::nullopt;
    while (dirent* entry = readdir(directory.get())) {
        if (entry->d_ino != inode) continue;
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        std::string candidate = (folder == "/" ? "" : folder) + "/" + name;
        if (isTheItem(candidate)) return candidate;
    }
    return std::nullopt;
}

}  // namespace corvane
