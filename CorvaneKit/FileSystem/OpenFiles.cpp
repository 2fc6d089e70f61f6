#include "FileSystem/OpenFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <map>
#include <string_view>

#include "FileSystem/LinuxDesktop.h"
#include "FileSystem/ProcessRunner.h"
#include "Records/UTF8.h"

namespace corvane {

namespace {

std::vector<std::string> namesInFirstSeenOrder(const std::vector<Holder>& list) {
    std::vector<std::string> names;
    for (const auto& holder : list)
        if (std::find(names.begin(), names.end(), holder.command) == names.end())
            names.push_back(holder.command);
    return names;
}

std::vector<Holder> filtered(const std::vector<Holder>& list, bool (*keep)(const Holder&)) {
    std::vector<Holder> kept;
    std::copy_if(list.begin(), list.end(), std::back_inserter(kept), keep);
    return kept;
}

constexpr std::string_view kDeletedSuffix = " (deleted)";

// Whether a name that /proc shows lies at or below the path asked about (raw bytes). The kernel
// appends " (deleted)" to an unlinked entry's name; that changes the answer for the path itself
// only, and only when no live entry bears the longer name.
class HeldNameMatcher {
public:
    explicit HeldNameMatcher(const std::string& path) : path_(path), mappedPath_(path) {
        for (std::size_t at = 0; (at = mappedPath_.find('\n', at)) != std::string::npos; at += 4)
            mappedPath_.replace(at, 1, "\\012");  // how the mapping list writes a line feed
        struct stat ignored {};
        longerNameExists_ = lstat((path + std::string(kDeletedSuffix)).c_str(), &ignored) == 0;
    }

    bool linkMatches(std::string_view link) const { return matches(link, path_); }
    bool mappingMatches(std::string_view name) const { return matches(name, mappedPath_); }

private:
    bool matches(std::string_view shown, std::string_view base) const {
        if (!shown.starts_with(base)) return false;
        if (shown.size() == base.size() || base.back() == '/' || shown[base.size()] == '/')
            return true;
        return !longerNameExists_ && shown.substr(base.size()) == kDeletedSuffix;
    }

    std::string path_, mappedPath_;
    bool longerNameExists_ = false;
};

struct Holding {
    bool holds = false;
    bool writes = false;
};

// Regular files only: whatever stands in for /proc, nothing read from it can block or never end.
int openRegularFile(int folder, const char* name) {
    int fd = openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (fd >= 0 && (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

// Up to `limit` bytes of a file in `folder`, or nothing when it cannot be opened or read.
std::optional<std::string> readSmallFile(int folder, const char* name, std::size_t limit) {
    int fd = openRegularFile(folder, name);
    if (fd < 0) return std::nullopt;
    std::string text(limit, '\0');
    std::size_t filled = 0;
    bool failed = false;
    while (filled < limit) {
        ssize_t count = read(fd, text.data() + filled, limit - filled);
        if (count < 0 && errno == EINTR) continue;
        failed = count < 0;
        if (count <= 0) break;
        filled += static_cast<std::size_t>(count);
    }
    close(fd);
    if (failed) return std::nullopt;
    text.resize(filled);
    return text;
}

// From the "flags:" line of /proc/PID/fdinfo/FD (octal), as lsof's "w" and "u".
bool openedForWriting(int processFolder, const char* descriptor) {
    auto info = readSmallFile(processFolder, ("fdinfo/" + std::string(descriptor)).c_str(), 4096);
    if (!info) return false;
    std::size_t at = info->starts_with("flags:") ? 0 : info->find("\nflags:");
    if (at == std::string::npos) return false;
    at = info->find_first_not_of(" \t", info->find(':', at) + 1);
    if (at == std::string::npos) return false;
    unsigned flags = 0;
    auto [last, error] = std::from_chars(info->data() + at, info->data() + info->size(), flags, 8);
    if (error != std::errc()) return false;
    int mode = static_cast<int>(flags) & O_ACCMODE;
    return mode == O_WRONLY || mode == O_RDWR;
}

// One line of /proc/PID/maps: "start-end perms offset device inode", padding, then the name.
void considerMapping(std::string_view line, const HeldNameMatcher& matcher, Holding& holding) {
    std::string_view permissions;
    for (int field = 0; field < 5; ++field) {
        std::size_t space = line.find(' ');
        if (space == std::string_view::npos) return;  // anonymous: no name follows
        if (field == 1) permissions = line.substr(0, space);
        line.remove_prefix(space + 1);
    }
    std::size_t name = line.find_first_not_of(' ');
    if (name == std::string_view::npos || !matcher.mappingMatches(line.substr(name))) return;
    holding.holds = true;
    if (permissions.size() >= 4 && permissions[1] == 'w' && permissions[3] == 's')
        holding.writes = true;  // stores reach the file
}

void scanMappings(int processFolder, const HeldNameMatcher& matcher, Holding& holding) {
    int fd = openRegularFile(processFolder, "maps");
    if (fd < 0) return;
    constexpr std::size_t kChunk = 64 * 1024;
    std::string pending;
    while (!holding.writes) {
        std::size_t kept = pending.size();
        pending.resize(kept + kChunk);
        ssize_t count = read(fd, pending.data() + kept, kChunk);
        if (count < 0 && errno == EINTR)
            count = 0;
        else if (count <= 0)
            count = -1;  // the end, or the process is gone
        pending.resize(kept + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        std::size_t start = 0;
        for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos;
             start = end + 1)
            considerMapping(std::string_view(pending).substr(start, end - start), matcher, holding);
        pending.erase(0, start);
        if (count < 0) {
            if (!pending.empty()) considerMapping(pending, matcher, holding);
            break;
        }
    }
    close(fd);
}

Holding holdingOf(int processFolder, const HeldNameMatcher& matcher) {
    Holding holding;
    char target[8192];
    auto pointsInside = [&](int folder, const char* name) {
        ssize_t length = readlinkat(folder, name, target, sizeof target);
        return length > 0 &&
               matcher.linkMatches(std::string_view(target, static_cast<std::size_t>(length)));
    };
    for (const char* name : {"cwd", "root", "exe"})
        if (pointsInside(processFolder, name)) holding.holds = true;

    int descriptors = openat(processFolder, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* listing = descriptors < 0 ? nullptr : fdopendir(descriptors);
    if (!listing && descriptors >= 0) close(descriptors);
    while (listing && !holding.writes) {
        dirent* entry = readdir(listing);
        if (!entry) break;
        if (entry->d_name[0] == '.' || !pointsInside(descriptors, entry->d_name)) continue;
        holding.holds = true;
        holding.writes = openedForWriting(processFolder, entry->d_name);
    }
    if (listing) closedir(listing);
    if (!holding.writes) scanMappings(processFolder, matcher, holding);
    return holding;
}

std::string commandOf(int processFolder) {
    std::string command = readSmallFile(processFolder, "comm", 64).value_or("");
    if (command.ends_with('\n')) command.pop_back();
    return command;
}

}  // namespace

Holders OpenFiles::holders(const std::string& path, double timeout, const std::string& lsofPath) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return Holders::known({});
    std::vector<std::string> arguments{"-F", "pcfa"};
    if (S_ISDIR(status.st_mode)) arguments.push_back("+D");  // every file below counts
    arguments.push_back(path);
    try {
        ProcessResult result = ProcessRunner::run(lsofPath, arguments, std::nullopt, timeout);
        return classify(result.status, result.timedOut, result.output);
    } catch (...) {
        return Holders::unknown();
    }
}

Holders OpenFiles::holdersFromProc(const std::string& path, const std::string& procPath) {
    int procFolder = open(procPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (procFolder < 0) return Holders::unknown();
    // A process table that does not show this process is not mounted or not ours to read.
    DIR* processes = faccessat(procFolder, std::to_string(getpid()).c_str(), F_OK, 0) == 0
                         ? fdopendir(procFolder)
                         : nullptr;
    if (!processes) {
        close(procFolder);
        return Holders::unknown();
    }
    if (path.empty() || path.front() != '/') {
        closedir(processes);
        return Holders::known({});
    }
    HeldNameMatcher matcher(path);
    std::vector<Holder> list;
    bool failed = false;
    for (;;) {
        errno = 0;
        dirent* entry = readdir(processes);
        if (!entry) {
            failed = errno != 0;
            break;
        }
        std::string_view name(entry->d_name);
        pid_t pid = 0;
        auto [last, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (error != std::errc() || last != name.data() + name.size() || pid <= 0) continue;
        int processFolder = openat(procFolder, entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (processFolder < 0) continue;  // ended since the listing
        Holding holding = holdingOf(processFolder, matcher);
        if (holding.holds) list.push_back({commandOf(processFolder), holding.writes, pid});
        close(processFolder);
    }
    closedir(processes);
    if (failed) return Holders::unknown();
    std::sort(list.begin(), list.end(),
              [](const Holder& a, const Holder& b) { return a.pid < b.pid; });
    return Holders::known(std::move(list));
}

Holders OpenFiles::classify(int status, bool timedOut, const std::string& output) {
    if (timedOut) return Holders::unknown();
    bool blank = std::all_of(output.begin(), output.end(),
                             [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
    if (status != 0 && blank) return Holders::unknown();
    return Holders::known(parse(output));
}

std::vector<Holder> OpenFiles::parse(const std::string& output) {
    std::vector<pid_t> order;
    std::map<pid_t, std::string> commands;
    std::map<pid_t, bool> writers;
    pid_t current = 0;
    std::size_t start = 0;
    while (start <= output.size()) {
        std::size_t end = output.find('\n', start);
        if (end == std::string::npos) end = output.size();
        std::string_view line(output.data() + start, end - start);
        start = end + 1;
        if (line.empty()) continue;
        std::string_view rest = line.substr(1);
        switch (line.front()) {
            case 'p': {
                pid_t pid = 0;
                auto [last, error] = std::from_chars(rest.data(), rest.data() + rest.size(), pid);
                if (error != std::errc() || last != rest.data() + rest.size()) pid = 0;
                current = pid;
                if (writers.emplace(current, false).second) order.push_back(current);
                break;
            }
            case 'c': commands.emplace(current, std::string(rest)); break;  // the first name wins
            case 'a':
                if (rest == "w" || rest == "u") writers[current] = true;
                break;
            default: break;
        }
    }
    std::vector<Holder> holders;
    for (pid_t pid : order) holders.push_back({commands[pid], writers[pid], pid});
    return holders;
}

std::vector<std::string> OpenFiles::writerNames(const Holders& holders) {
    if (!holders.isKnown) return {};
    return namesInFirstSeenOrder(
        filtered(holders.list, [](const Holder& h) { return h.isWriter; }));
}

std::vector<std::string> OpenFiles::blockingNames(const Holders& holders) {
    if (!holders.isKnown) return {};
    auto writers = writerNames(holders);
    if (!writers.empty()) return writers;
    return namesInFirstSeenOrder(
        filtered(holders.list, [](const Holder& h) { return !isAllowlisted(h.command); }));
}

std::vector<std::string> OpenFiles::appNames(const std::string& path, double timeout) {
    return writerNames(holders(path, timeout));
}

std::optional<std::string> OpenFiles::executablePath(pid_t pid) {
    char buffer[4096] = {};
    ssize_t length =
        readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), buffer, sizeof buffer);
    if (length < 1) return std::nullopt;
    return UTF8::lenient(std::string_view(buffer, static_cast<std::size_t>(length)));
}

bool OpenFiles::safeToAutoEject(const Holders& holders, const ExecutablePathOf& executablePathOf) {
    if (!holders.isKnown || holders.list.empty()) return false;
    return std::all_of(holders.list.begin(), holders.list.end(), [&](const Holder& holder) {
        if (holder.isWriter || !isAllowlisted(holder.command)) return false;
        auto executable = executablePathOf(holder.pid);
        if (!executable) return false;
        const auto& prefixes = LinuxDesktop::systemExecutablePrefixes;
        return std::any_of(prefixes.begin(), prefixes.end(), [&](std::string_view prefix) {
            return executable->starts_with(prefix);
        });
    });
}

bool OpenFiles::isAllowlisted(const std::string& command) {
    const auto& allowed = LinuxDesktop::autoEjectAllowlist;
    return std::find(allowed.begin(), allowed.end(), command) != allowed.end();
}

}  // namespace corvane
