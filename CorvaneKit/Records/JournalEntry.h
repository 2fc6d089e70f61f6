// One unfinished lock or restore: every path it will touch, written before it changes anything and
// updated as it passes its points of no return. A plain value.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Records/DateFormat.h"
#include "Records/FileIdentity.h"
#include "Records/OriginalFacts.h"
#include "Records/Uuid.h"

namespace corvane {

struct JournalEntry {
    enum class Kind { lock, restore };

    Uuid id;
    Kind kind = Kind::lock;
    std::string originalPath;
    std::string partialPath;
    std::string finalPath;
    std::optional<FileIdentity> lockedIdentity;
    std::optional<Date> lockedAt;
    std::optional<std::string> deletingPath;
    // A lock's original as it was before the copy, written with lockedIdentity; recovery deletes
    // an original only while it still has these facts.
    std::optional<OriginalFacts> originalFacts;

    bool operator==(const JournalEntry&) const = default;

    static std::string_view rawValue(Kind kind) { return kind == Kind::lock ? "lock" : "restore"; }
    static std::optional<Kind> kindFromRawValue(std::string_view raw);

    nlohmann::json toJSON() const;
    static JournalEntry fromJSON(const nlohmann::json& value);  // throws DecodingError
};

}  // namespace corvane
