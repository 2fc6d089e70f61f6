#include "Commands/SenderCheck.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>

#include "Records/AppPaths.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

constexpr std::size_t maximumStatSize = 4096;
constexpr std::size_t maximumLinkSize = PATH_MAX;
constexpr std::size_t maximumEnvironmentSize = 1 << 20;

struct ProcessStat {
    pid_t parent = 0;
    std::uint64_t startTime = 0;  // clock ticks after boot
};

// The fields of /proc/PID/stat that matter here. The command name (field 2) is in parentheses
// but may itself hold spaces and parentheses, so the fields are counted from the last ')'.
std::optional<ProcessStat> parseStat(std::string_view text) {
    auto close = text.rfind(')');
    if (close == std::string_view::npos) return std::nullopt;
    std::vector<std::string_view> fields;  // from field 3 on
    for (std::size_t at = close + 1; at < text.size() && fields.size() < 20;) {
        while (at < text.size() && text[at] == ' ') ++at;
        auto end = std::min(text.find(' ', at), text.size());
        if (end > at) fields.push_back(text.substr(at, end - at));
        at = end;
    }
    if (fields.size() < 20) return std::nullopt;
    auto number = [](std::string_view field, auto& value) {
        auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
        return error == std::errc() && end == field.data() + field.size();
    };
    ProcessStat stat;
    if (!number(fields[1], stat.parent) || !number(fields[19], stat.startTime)) return std::nullopt;
    return stat;
}

// One process, read through its /proc folder: once the process is gone, reads through this
// handle fail instead of reaching a later process that was given the same id.
class ProcessHandle {
public:
    explicit ProcessHandle(pid_t pid)
        : fd_(pid > 0 ? open(("/proc/" + std::to_string(pid)).c_str(),
                             O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                      : -1) {}
    ~ProcessHandle() {
        if (fd_ >= 0) close(fd_);
    }
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;

    std::optional<ProcessStat> stat() const {
        if (fd_ < 0) return std::nullopt;
        int fd = openat(fd_, "stat", O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) return std::nullopt;
        std::string text(maximumStatSize, '\0');
        std::size_t size = 0;
        while (size < text.size()) {
            ssize_t n = read(fd, text.data() + size, text.size() - size);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            size += std::size_t(n);
        }
        close(fd);
        if (size == 0 || size == text.size()) return std::nullopt;
        text.resize(size);
        return parseStat(text);
    }

    // The path the kernel shows for the program file (with " (deleted)" once it was removed).
    std::optional<std::string> executablePath() const {
        if (fd_ < 0) return std::nullopt;
        std::string path(maximumLinkSize + 1, '\0');
        ssize_t n = readlinkat(fd_, "exe", path.data(), path.size());
        if (n <= 0 || std::size_t(n) > maximumLinkSize) return std::nullopt;
        path.resize(std::size_t(n));
        return path;
    }

    // The environment the process started with, NUL-separated; nothing when it cannot be read or
    // is larger than any a desktop gives.
    std::optional<std::string> environment() const {
        if (fd_ < 0) return std::nullopt;
        int fd = openat(fd_, "environ", O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) return std::nullopt;
        std::string text(maximumEnvironmentSize + 1, '\0');
        std::size_t size = 0;
        bool failed = false;
        while (size < text.size()) {
            ssize_t n = read(fd, text.data() + size, text.size() - size);
            if (n < 0 && errno == EINTR) continue;
            failed = n < 0;
            if (n <= 0) break;
            size += std::size_t(n);
        }
        close(fd);
        if (failed || size > maximumEnvironmentSize) return std::nullopt;
        text.resize(size);
        return text;
    }

    // The program file itself, found by the kernel even where its path has changed.
    std::optional<struct stat> executable() const {
        struct stat status {};
        if (fd_ < 0 || fstatat(fd_, "exe", &status, 0) != 0) return std::nullopt;
        return status;
    }

private:
    int fd_;
};

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool isOwnExecutable(const struct stat& running, const SenderCheck::Facts& facts) {
    struct stat own {};
    return !facts.ownExecutable.empty() && stat(facts.ownExecutable.c_str(), &own) == 0 &&
           sameFile(own, running);
}

// The file `corvane` beside the application, which only root or the user could have put there
// or changed since.
bool isInstalledCommand(const struct stat& running, const SenderCheck::Facts& facts) {
    if (facts.ownExecutable.empty() || facts.ownExecutable.front() != '/') return false;
    std::string folder = parentPath(facts.ownExecutable);
    struct stat installed {};
    return lstat(((folder == "/" ? "" : folder) + "/corvane").c_str(), &installed) == 0 &&
           S_ISREG(installed.st_mode) && sameFile(installed, running) &&
           (installed.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
           (installed.st_uid == 0 || installed.st_uid == facts.uid);
}

bool isWrapper(std::string_view name) {
    return name == "sh" || name == "dash" || name == "bash" || name == "kioexec";
}

// Whether the nearest ancestor that is not a shell or launcher (at most maximumWrappers of them)
// runs one of the file managers.
bool startedByFileManager(ProcessStat child, const SenderCheck::Facts& facts) {
    for (int wrappers = 0;; ++wrappers) {
        ProcessHandle parent(child.parent);
        auto before = parent.stat();
        // A parent cannot have started after its child: the id went to another process.
        if (!before || before->startTime > child.startTime) return false;
        auto path = parent.executablePath();
        auto after = parent.stat();
        if (!path || !after || after->startTime != before->startTime) return false;
        if (std::find(facts.fileManagers.begin(), facts.fileManagers.end(), *path) !=
            facts.fileManagers.end())
            return true;
        if (wrappers == SenderCheck::maximumWrappers || !isWrapper(lastPathComponent(*path)))
            return false;
        child = *before;
    }
}

bool preloadsCode(const ProcessHandle& process) {
    auto environment = process.environment();
    if (!environment) return true;
    for (std::size_t at = 0; at < environment->size();) {
        auto end = std::min(environment->find('\0', at), environment->size());
        std::string_view entry(environment->data() + at, end - at);
        if (entry.starts_with("LD_PRELOAD=") || entry.starts_with("LD_AUDIT=")) return true;
        at = end + 1;
    }
    return false;
}

std::optional<std::string> identify(const ProcessHandle& peer, const ProcessStat& stat,
                                    const SenderCheck::Facts& facts) {
    auto running = peer.executable();
    auto path = peer.executablePath();
    if (!running || !path || preloadsCode(peer)) return std::nullopt;
    if (isOwnExecutable(*running, facts)) return std::string(SenderCheck::application);
    if (isInstalledCommand(*running, facts) && startedByFileManager(stat, facts))
        return std::string(SenderCheck::fileManagerMenu);
    if (facts.testOverride && lastPathComponent(*path) == "corvane-e2e")
        return std::string(SenderCheck::endToEndTest);
    return std::nullopt;
}

}  // namespace

SenderCheck::Facts SenderCheck::Facts::current() {
    Facts facts;
    facts.ownExecutable = ProcessHandle(getpid()).executablePath().value_or("");
    facts.fileManagers = {"/usr/bin/nautilus", "/usr/bin/dolphin", "/usr/bin/thunar",
                          "/usr/bin/nemo", "/usr/bin/caja"};
    facts.testOverride = AppPaths::isTestOverride();
    facts.uid = geteuid();
    return facts;
}

std::optional<SenderCheck::Process> SenderCheck::process(pid_t pid) {
    ProcessHandle handle(pid);
    auto before = handle.stat();
    auto running = handle.executable();
    auto after = handle.stat();
    if (!before || !running || !after || after->startTime != before->startTime)
        return std::nullopt;
    return Process{running->st_dev, running->st_ino, before->startTime};
}

bool SenderCheck::preloads(pid_t pid) {
    return preloadsCode(ProcessHandle(pid));
}

std::optional<std::string> SenderCheck::senderIdentifier(pid_t peer, const Facts& facts) {
    ProcessHandle process(peer);
    auto before = process.stat();
    if (!before) return std::nullopt;
    auto identifier = identify(process, *before, facts);
    // Everything above was read from one process only if it is still the one first seen.
    auto after = process.stat();
    if (!after || after->startTime != before->startTime) return std::nullopt;
    return identifier;
}

}  // namespace corvane
