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

    // Nothing when another process holds the directory or the lock file cannot be opened.
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
