// The record of one locked file or folder: what it was called, where it stands, which password
// generation encrypts it and how far its locking got. A plain value; change a copy and write it
// back with ItemIndex::upsert.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Records/DateFormat.h"
#include "Records/Uuid.h"

namespace corvane {

struct LockedItem {
    enum class Kind { file, folder };
    enum class Stage { originalPending, complete };

    Uuid id;
    std::string displayName;
    Kind kind = Kind::file;
    std::optional<std::vector<std::uint8_t>> bookmark;
    std::string lastKnownPath;
    Date createdAt;
    std::int64_t passwordGeneration = 0;
    Stage stage = Stage::complete;
    std::optional<std::string> originalPath;
    std::optional<std::int64_t> contentSize;

    bool operator==(const LockedItem&) const = default;

    static std::string_view rawValue(Kind kind);
    static std::optional<Kind> kindFromRawValue(std::string_view raw);
    static std::string_view rawValue(Stage stage);
    static std::optional<Stage> stageFromRawValue(std::string_view raw);

    nlohmann::json toJSON() const;
    // Throws DecodingError.
    static LockedItem fromJSON(const nlohmann::json& value);
};

}  // namespace corvane
