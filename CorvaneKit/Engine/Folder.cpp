#include "Engine/Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "Records/Paths.h"
#include "Records/UTF8.h"

namespace corvane {

namespace {

[[noreturn]] void throwErrno(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string procPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// Immutable and append-only marks would stop the deletion; a hard-linked file shares its marks
// with its other names, so those are left alone.
void clearMarks(int fd, const struct stat& status) {
    if (!S_ISDIR(status.st_mode) && status.st_nlink > 1) return;
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) return;
    if ((flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)) == 0) return;
    flags &= ~(FS_IMMUTABLE_FL | FS_APPEND_FL);
    ioctl(fd, FS_IOC_SETFLAGS, &flags);
}

// Where an entry lives: a bind mount of the same file system has the same device, so the mount
// is told by its own id.
struct Place {
    dev_t device;
    std::uint64_t mount;
};

std::optional<Place> placeOf(int fd, const char* name, struct stat& status) {
    struct statx extended {};
    if (statx(fd, name, AT_SYMLINK_NOFOLLOW | (*name ? 0 : AT_EMPTY_PATH),
              STATX_BASIC_STATS | STATX_MNT_ID, &extended) != 0)
        return std::nullopt;
    status = {};
    status.st_dev = makedev(extended.stx_dev_major, extended.stx_dev_minor);
    status.st_ino = extended.stx_ino;
    status.st_mode = extended.stx_mode;
    status.st_nlink = extended.stx_nlink;
    return Place{status.st_dev, (extended.stx_mask & STATX_MNT_ID) ? extended.stx_mnt_id : 0};
}

void removeEntry(int parent, const std::string& name, const Place& place, const std::string& shown);

void removeDirectory(int parent, const std::string& name, const struct stat& status,
                     const Place& place, const std::string& shown) {
    // Opened as a path first, so that a folder without read permission can be opened up through
    // the very descriptor that was checked.
    Descriptor handle(openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat opened {};
    if (handle.get() < 0 || fstat(handle.get(), &opened) != 0) throwErrno(errno, shown);
    if (opened.st_ino != status.st_ino || opened.st_dev != status.st_dev) throwErrno(ESTALE, shown);
    if ((opened.st_mode & S_IRWXU) != S_IRWXU &&
        chmod(procPath(handle.get()).c_str(), (opened.st_mode & 07777) | S_IRWXU) != 0)
        throwErrno(errno, shown);

    Descriptor folder(open(procPath(handle.get()).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0) throwErrno(errno, shown);
    clearMarks(folder.get(), opened);
    std::vector<std::string> names;
    {
        int listing = dup(folder.get());
        if (listing < 0) throwErrno(errno, shown);
        std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(listing), closedir);
        if (!entries) {
            close(listing);
            throwErrno(errno, shown);
        }
        errno = 0;
        while (dirent* entry = readdir(entries.get())) {
            std::string child = entry->d_name;
            if (child != "." && child != "..") names.push_back(std::move(child));
            errno = 0;
        }
        if (errno != 0) throwErrno(errno, shown);
    }
    for (const auto& child : names) removeEntry(folder.get(), child, place, shown + "/" + child);
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
        throwErrno(errno, shown);
}

void removeEntry(int parent, const std::string& name, const Place& place,
                 const std::string& shown) {
    struct stat status {};
    struct statx marks {};
    auto entryPlace = placeOf(parent, name.c_str(), status);
    if (!entryPlace) {
        if (errno == ENOENT) return;
        throwErrno(errno, shown);
    }
    // A mount inside is someone else's data: the deletion stops rather than reach into it.
    if (entryPlace->device != place.device || entryPlace->mount != place.mount)
        throwErrno(EXDEV, shown);
    if (S_ISDIR(status.st_mode)) return removeDirectory(parent, name, status, place, shown);
    bool marked = statx(parent, name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &marks) == 0 &&
                  (marks.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
    if (marked && S_ISREG(status.st_mode)) {
        Descriptor file(
            openat(parent, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (file.get() >= 0) clearMarks(file.get(), status);
    }
    if (unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT) throwErrno(errno, shown);
}

}  // namespace

Folder::Folder(std::string path) : path_(std::move(path)) {
    fd_ = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat status {};
    if (fd_ < 0 || fstat(fd_, &status) != 0) {
        int error = errno;
        if (fd_ >= 0) close(fd_);
        throwErrno(error, path_);
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

Folder::~Folder() {
    if (fd_ >= 0) close(fd_);
}

Folder::Folder(Folder&& other) noexcept
    : path_(std::move(other.path_)), fd_(other.fd_), device_(other.device_), inode_(other.inode_) {
    other.fd_ = -1;
}

std::string Folder::anchored(const std::string& name) const {
    // Through this process's own entry, so that a child process reaches the same folder.
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_) + "/" + name;
}

void Folder::confirmIdentity() const {
    struct stat now {};
    if (lstat(path_.c_str(), &now) != 0 || !S_ISDIR(now.st_mode) || now.st_dev != device_ ||
        now.st_ino != inode_)
        throw std::runtime_error("The folder " + UTF8::lenient(lastPathComponent(path_)) +
                                 " was moved or replaced while Corvane was working in it, so "
                                 "nothing in it was deleted.");
}

bool Folder::contains(const std::string& name) const {
    struct stat ignored {};
    return status(name, ignored);
}

bool Folder::status(const std::string& name, struct stat& result) const {
    return fstatat(fd_, name.c_str(), &result, AT_SYMLINK_NOFOLLOW) == 0;
}

void Folder::renameExclusively(const std::string& from, const std::string& to) const {
    if (renameat2(fd_, from.c_str(), fd_, to.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno != EINVAL && errno != ENOTSUP) throwErrno(errno, path_ + "/" + from);
        // A file system without exclusive renames: check, then rename, as close as it allows.
        if (contains(to)) throwErrno(EEXIST, path_ + "/" + from);
        if (errno != ENOENT) throwErrno(errno, path_ + "/" + to);
        if (renameat(fd_, from.c_str(), fd_, to.c_str()) != 0)
            throwErrno(errno, path_ + "/" + from);
    }
    if (fsync(fd_) != 0) throwErrno(errno, path_);
}

void Folder::synchronize() const {
    // fsync of a folder writes its entries, not the files inside them: syncfs writes everything.
    if (syncfs(fd_) != 0) throwErrno(errno, path_);
    if (fsync(fd_) != 0) throwErrno(errno, path_);
}

void Folder::removeOwnedTree(const std::string& name) const {
    confirmIdentity();
    struct stat status {};
    auto place = placeOf(fd_, "", status);
    if (!place) throwErrno(errno, path_);
    removeEntry(fd_, name, *place, path_ + "/" + name);
    if (fsync(fd_) != 0) throwErrno(errno, path_);
}

}  // namespace corvane
