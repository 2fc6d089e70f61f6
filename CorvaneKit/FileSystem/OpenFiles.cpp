#include "FileSystem/OpenFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>

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
