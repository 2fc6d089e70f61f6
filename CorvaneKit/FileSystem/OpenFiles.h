// Who has files open under a path: which programs write (the lock refuses while any does), and
// who keeps a volume busy (detach names them, or ejects by force when only harmless system readers
// remain). Asked of lsof's field output, or read straight from /proc without lsof's cost of a stat
// per file below the path. Never fails: a source that cannot answer gives `unknown`. Any thread.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct Holder {
    std::string command;  // as lsof names it (/proc/PID/comm, raw bytes); empty when it gave none
    bool isWriter = false;
    pid_t pid = 0;

    bool operator==(const Holder&) const = default;
};

// What the lister said: a list (maybe empty), or that it could not tell.
struct Holders {
    bool isKnown = false;
    std::vector<Holder> list;

    static Holders known(std::vector<Holder> list) { return {true, std::move(list)}; }
    static Holders unknown() { return {false, {}}; }

    bool operator==(const Holders&) const = default;
};

struct OpenFiles {
    static constexpr const char* defaultLsofPath = "/usr/bin/lsof";
    static constexpr const char* defaultProcPath = "/proc";

    // Blocks for up to `timeout` seconds.
    static Holders holders(const std::string& path, double timeout,
                           const std::string& lsofPath = defaultLsofPath);
    // The holders lsof would list, read from every process's descriptors (writer: opened
    // write-only or read-write), working folder, root, executable and mappings, without walking
    // the tree. Unlike lsof, a shared writable mapping writes, and an unlinked file still open at
    // or below `path` (a real path) counts. Processes that cannot be inspected are skipped;
    // `unknown` when `procPath` cannot be read. Sorted by process identifier.
    static Holders holdersFromProc(const std::string& path,
                                   const std::string& procPath = defaultProcPath);
    static Holders classify(int status, bool timedOut, const std::string& output);
    static std::vector<Holder> parse(const std::string& output);

    // Names once each, in the order first seen; empty for `unknown`.
    static std::vector<std::string> writerNames(const Holders& holders);
    static std::vector<std::string> blockingNames(const Holders& holders);
    static std::vector<std::string> appNames(const std::string& path, double timeout);

    static std::optional<std::string> executablePath(pid_t pid);

    using ExecutablePathOf = std::function<std::optional<std::string>(pid_t)>;
    static bool safeToAutoEject(const Holders& holders,
                                const ExecutablePathOf& executablePathOf = executablePath);

    static bool isAllowlisted(const std::string& command);
};

}  // namespace corvane
