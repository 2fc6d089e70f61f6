#include "Records/SupportLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "Records/JSONCodec.h"

namespace corvane {

namespace {

[[noreturn]] void throwCannotCreate(int error, const std::string& directory) {
    throw std::system_error(error, std::generic_category(),
                            "Corvane could not create its folder " + directory);
}

}  // namespace

std::unique_ptr<SupportLock> SupportLock::acquire(const std::string& directory) {
    try {
        JSONCodec::createDirectories(directory, 0700);
    } catch (const std::system_error& error) {
        throwCannotCreate(error.code().value(), directory);
    }
    std::string path = directory + "/" + std::string(fileName);
    // Whatever sits at the lock file's name is not followed or waited on: only a file will do.
    // It is never set aside here: two processes doing so at once could each lock a file of its own.
    auto notAFile = [&] {
        throw std::runtime_error("Corvane cannot use its lock file " + path +
                                 ", which is not a regular file; move it away, then try again.");
    };
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0 && (errno == ELOOP || errno == EISDIR || errno == ENXIO)) notAFile();
    if (fd < 0) throwCannotCreate(errno, directory);
    struct stat status {};
    int error = fstat(fd, &status) != 0 ? errno : !S_ISREG(status.st_mode) ? EINVAL : 0;
    if (error != 0) {
        close(fd);
        if (error == EINVAL) notAFile();
        throwCannotCreate(error, directory);
    }
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        error = errno;
        if (error == EINTR) continue;
        close(fd);
        if (error == EWOULDBLOCK) return nullptr;
        throwCannotCreate(error, directory);
    }
    return std::unique_ptr<SupportLock>(new SupportLock(fd));
}

SupportLock::~SupportLock() {
    flock(fd_, LOCK_UN);
    close(fd_);
}

}  // namespace corvane
