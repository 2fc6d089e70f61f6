#include "FileSystem/ItemFacts.h"

#include <sys/stat.h>

#include <algorithm>

#include "FileSystem/FileWalk.h"
#include "FileSystem/LinuxDesktop.h"
#include "FileSystem/MountTable.h"
#include "Records/FatalError.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

template <class SizeOf>
std::int64_t sumRegularFiles(const std::string& path, SizeOf sizeOf) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return 0;
    if (S_ISREG(status.st_mode)) return sizeOf(status);

    std::int64_t total = 0;
    try {
        // Entries that cannot be read carry no status and are passed over.
        FileWalk::walk(path, [&](const FileWalk::Entry& entry) {
            if (!entry.problem && S_ISREG(entry.info.st_mode) &&
                __builtin_add_overflow(total, sizeOf(entry.info), &total))
                fatalError("size overflow");
            return FileWalk::Next::descend;
        });
    } catch (const FileWalk::WalkError&) {
        // An unreadable folder has no size we can know.
    }
    return total;
}

bool isMountPoint(const std::string& path, const struct stat& status,
                  const std::vector<MountEntry>& mounts) {
    if (path == "/") return true;
    struct stat parent {};
    auto slash = path.rfind('/');
    std::string parentPath = slash == 0 ? "/" : path.substr(0, slash);
    if (stat(parentPath.c_str(), &parent) == 0 && parent.st_dev != status.st_dev) return true;
    // A bind mount of the same file system shows only in the mount table.
    return std::any_of(mounts.begin(), mounts.end(),
                       [&](const MountEntry& mount) { return mount.mountPoint == path; });
}

}  // namespace

ItemFacts ItemFacts::inspect(const std::string& path) {
    ItemFacts facts;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return facts;
    facts.exists = true;
    facts.isSymlink = S_ISLNK(status.st_mode);

    std::string real = facts.isSymlink ? standardizedPath(path) : realPath(path);
    std::vector<MountEntry> mounts;
    try {
        mounts = MountTable::read();
    } catch (const std::exception&) {
        // Without the table the item's own device still tells a mount point.
    }
    facts.isVolumeRoot = isMountPoint(real, status, mounts);
    if (auto mount = MountTable::containing(mounts, real, status.st_dev)) {
        const auto& network = LinuxDesktop::networkFileSystems;
        facts.isNetworkVolume =
            std::find(network.begin(), network.end(), mount->fileSystemType) != network.end();
    }

    if (!facts.isSymlink) facts.size = allocatedSize(path);
    return facts;
}

std::int64_t ItemFacts::allocatedSize(const std::string& path) {
    return sumRegularFiles(path, [](const struct stat& status) {
        return static_cast<std::int64_t>(status.st_blocks) * 512;
    });
}

std::int64_t ItemFacts::logicalSize(const std::string& path) {
    return sumRegularFiles(
        path, [](const struct stat& status) { return static_cast<std::int64_t>(status.st_size); });
}

}  // namespace corvane
