// What an original was when its copy began, in a form a journal entry can carry: a digest of every
// entry's path, type, inode, size, modification and status-change time, leaving out the item's own
// status-change time, which the move aside before deletion sets; that one is kept beside it.
// A program can set a modification time back, never a status-change time or an inode, so equal
// facts mean the tree was not written to. A plain value.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace corvane {

struct OriginalFacts {
    std::string digest;  // 64 lower-case hexadecimal digits (SHA-256)
    std::int64_t itemChangedNanoseconds = 0;

    bool operator==(const OriginalFacts&) const = default;

    nlohmann::json toJSON() const;
    static OriginalFacts fromJSON(const nlohmann::json& value);  // throws DecodingError
};

}  // namespace corvane
