// Helpers shared by the suites: private temporary folders, small file makers, and running a check
// as an ordinary user where root would read everything.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Records/CorvaneError.h"

namespace corvane::testing {

// A fresh folder under /tmp, removed with everything in it at the end of the test. Real path,
// world-traversable so that an unprivileged child can reach what a test grants it.
// Sets (or with nothing, unsets) an environment variable and puts back what was there.
class ScopedVariable {
public:
    ScopedVariable(std::string name, const std::optional<std::string>& value) : name_(name) {
        if (const char* old = std::getenv(name_.c_str())) old_ = old;
        value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
    }
    ~ScopedVariable() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

class TempDir {
public:
    TempDir() {
        std::string pattern = "/tmp/corvane-test-XXXXXX";
        path_ = std::filesystem::canonical(mkdtemp(pattern.data())).string();
        chmod(path_.c_str(), 0755);
    }
    ~TempDir() {
        std::error_code ignored;
        // Restore permissions a test took away, so that everything can be removed.
        for (auto it = std::filesystem::recursive_directory_iterator(
                 path_, std::filesystem::directory_options::skip_permission_denied, ignored);
             it != std::filesystem::recursive_directory_iterator(); it.increment(ignored))
            if (it->is_directory(ignored) && !it->is_symlink(ignored))
                chmod(it->path().c_str(), 0755);
        chmod(path_.c_str(), 0755);
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& contents) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << contents;
}

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

inline mode_t permissions(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return 0;
    return status.st_mode & 07777;
}

// The names in a folder, sorted.
inline std::vector<std::string> listing(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

constexpr uid_t kNobody = 65534;

// Runs `check` in a child process as user and group nobody when this process is root (as itself
// otherwise) and returns whether it passed. The child ends with _exit, so gtest's state is
// untouched.
inline bool passesAsUnprivilegedUser(const std::function<bool()>& check) {
    pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0) {
            if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)
                _exit(2);
        }
        bool passed = false;
        try {
            passed = check();
        } catch (...) {
            passed = false;
        }
        _exit(passed ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// What `describe` returned, run in a child process (as user nobody when `unprivileged` and this
// process is root), so that a call that blocks or never ends fails the test instead of stopping
// it: "still running" after ten seconds, "crashed" when the child died.
inline std::string outcomeInChild(const std::function<std::string()>& describe,
                                  bool unprivileged = false) {
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        if (unprivileged && geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0))
            _exit(2);
        std::string outcome = describe();
        (void)!write(fds[1], outcome.data(), outcome.size());
        _exit(0);
    }
    close(fds[1]);
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            close(fds[0]);
            return "still running";
        }
        usleep(5000);
    }
    std::string outcome;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
        outcome.append(buffer, static_cast<std::size_t>(n));
    close(fds[0]);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? outcome : "crashed";
}

// The CorvaneError an operation ends with, or nothing when it succeeds.
inline std::optional<CorvaneError> errorFrom(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const CorvaneError& error) {
        return error;
    }
    return std::nullopt;
}

// A program left running in the background for the length of a test; ended and reaped at the end.
class BackgroundProcess {
public:
    explicit BackgroundProcess(std::vector<std::string> argv) {
        pid_ = fork();
        if (pid_ == 0) {
            std::vector<char*> args;
            for (auto& arg : argv) args.push_back(arg.data());
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~BackgroundProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    pid_t pid() const { return pid_; }

    // Waits (up to five seconds) until the process has `path` open.
    bool waitUntilHolding(const std::string& path) const {
        for (int attempt = 0; attempt < 500; ++attempt) {
            std::error_code ignored;
            for (const auto& fd : std::filesystem::directory_iterator(
                     "/proc/" + std::to_string(pid_) + "/fd", ignored))
                if (std::filesystem::read_symlink(fd.path(), ignored) == path) return true;
            usleep(10000);
        }
        return false;
    }

private:
    pid_t pid_;
};

// `program` (a copy of sleep) keeping `file` open: `redirection` "<" reads, ">>" writes.
inline std::unique_ptr<BackgroundProcess> holdingFile(const std::string& file,
                                                      const std::string& redirection,
                                                      const std::string& program = "/bin/sleep") {
    auto process = std::make_unique<BackgroundProcess>(std::vector<std::string>{
        "/bin/sh", "-c", "exec 3" + redirection + "\"$1\"; exec \"$2\" 60", "sh", file, program});
    if (!process->waitUntilHolding(file))
        throw std::runtime_error(program + " never opened " + file);
    return process;
}

// The application's end of a command socket: takes up to `peers` connections at `path` and keeps
// the line each sent.
class SocketListener {
public:
    explicit SocketListener(const std::string& path, std::size_t peers = 1) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd_, 4) != 0) {
            lines_ = {"cannot listen at " + path};
            return;
        }
        thread_ = std::thread([this, peers] {
            for (pollfd ready{fd_, POLLIN, 0}; lines_.size() < peers;) {
                if (poll(&ready, 1, 15000) != 1 || !(ready.revents & POLLIN)) return;
                int peer = accept(fd_, nullptr, nullptr);
                if (peer < 0) return;
                lines_.emplace_back();
                for (char c; read(peer, &c, 1) == 1 && c != '\n';) lines_.back() += c;
                close(peer);
            }
        });
    }
    ~SocketListener() {
        stop();
        close(fd_);
    }
    SocketListener(const SocketListener&) = delete;
    SocketListener& operator=(const SocketListener&) = delete;

    // What peers sent before now. Shutting the socket down wakes the poll.
    std::vector<std::string> stop() {
        shutdown(fd_, SHUT_RDWR);
        return lines();
    }
    // Waits for every peer, or the poll's end.
    std::vector<std::string> lines() {
        if (thread_.joinable()) thread_.join();
        return lines_;
    }

private:
    int fd_ = -1;
    std::vector<std::string> lines_;
    std::thread thread_;
};

inline double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace corvane::testing

namespace corvane {

// Readable failures when comparing errors.
inline void PrintTo(const CorvaneError& error, std::ostream* out) {
    *out << "CorvaneError(" << static_cast<int>(error.errorCase()) << ", \""
         << error.errorDescription() << "\")";
}

}  // namespace corvane
