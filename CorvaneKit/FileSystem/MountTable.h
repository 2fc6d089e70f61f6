// The mounts this process sees, from /proc/self/mountinfo. Read fresh on every call; no state,
// so safe from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct MountEntry {
    dev_t device = 0;
    std::string mountPoint;  // unescaped
    std::string fileSystemType;
    std::string source;  // unescaped

    bool operator==(const MountEntry&) const = default;
};

struct MountTable {
    // More than this is no mount table this system could have; read refuses it.
    static constexpr std::size_t maximumBytes = 16 * 1024 * 1024;

    // Throws std::system_error naming `path` when it cannot be read whole (a table that cannot be
    // read is not an empty one).
    static std::vector<MountEntry> read(const std::string& path = "/proc/self/mountinfo");
    static std::vector<MountEntry> parse(std::string_view text);

    // Octal escapes such as \040 (space) turned back into their bytes.
    static std::string unescape(std::string_view field);

    // The mount that holds `path` (a real path) on `device`: the deepest matching mount point.
    static std::optional<MountEntry> containing(const std::vector<MountEntry>& mounts,
                                                std::string_view path, dev_t device);
};

}  // namespace corvane
