#include "Records/SupportLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <system_error>

#include "Records/JSONCodec.h"

namespace corvane {

std::unique_ptr<SupportLock> SupportLock::acquire(const std::string& directory) {
    try {
        JSONCodec::createDirectories(directory, 0700);
    } catch (const std::system_error&) {
        // The open below fails on its own if the directory is really missing.
    }
    std::string path = directory + "/" + std::string(fileName);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        return nullptr;
    }
    return std::unique_ptr<SupportLock>(new SupportLock(fd));
}

SupportLock::~SupportLock() {
    flock(fd_, LOCK_UN);
    close(fd_);
}

}  // namespace corvane
