// Makes sure one process at a time works on a support directory: an exclusive flock on
// ".corvane.lock" held for as long as this object lives. The system drops it when the process
// ends, so a crash never leaves the directory locked.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace corvane {

class SupportLock {
public:
    static constexpr std::string_view fileName = ".corvane.lock";

    // Creates the directory (0700) when missing and takes the lock. Nothing when another process
    // holds it. A directory or lock file that cannot be created or opened throws
    // std::system_error with the system's errno; its what() reads
    // "Corvane could not create its folder DIRECTORY: REASON". Something other than a file at the
    // lock file's name throws std::runtime_error, whose what() says to move it away.
    static std::unique_ptr<SupportLock> acquire(const std::string& directory);

    ~SupportLock();
    SupportLock(const SupportLock&) = delete;
    SupportLock& operator=(const SupportLock&) = delete;

    int fd() const { return fd_; }

private:
    explicit SupportLock(int fd) : fd_(fd) {}

    int fd_;
};

}  // namespace corvane
