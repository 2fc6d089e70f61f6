// Which file a path holds: inode and birth time. Crash recovery compares it with the identity a
// journal entry recorded to tell whether a path still holds the very file an operation made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace corvane {

struct FileIdentity {
    std::uint64_t inode = 0;
    std::int64_t birthSeconds = 0;  // 0 and 0 where the file system keeps no birth time
    std::int64_t birthNanoseconds = 0;

    bool operator==(const FileIdentity&) const = default;

    // The identity of the file at `path`, a final symbolic link itself, or nothing when it
    // cannot be read.
    static std::optional<FileIdentity> of(const std::string& path);

    nlohmann::json toJSON() const;
    static FileIdentity fromJSON(const nlohmann::json& value);  // throws DecodingError
};

}  // namespace corvane
