#include "Records/JournalEntry.h"

#include "Records/JSONFields.h"

namespace corvane {

std::optional<JournalEntry::Kind> JournalEntry::kindFromRawValue(std::string_view raw) {
    if (raw == "lock") return Kind::lock;
    if (raw == "restore") return Kind::restore;
    return std::nullopt;
}

nlohmann::json JournalEntry::toJSON() const {
    nlohmann::json value = {
        {"id", id.string()},          {"kind", rawValue(kind)}, {"originalPath", originalPath},
        {"partialPath", partialPath}, {"finalPath", finalPath},
    };
    if (lockedIdentity) value["lockedIdentity"] = lockedIdentity->toJSON();
    if (lockedAt) value["lockedAt"] = DateFormat::iso8601(*lockedAt);
    if (deletingPath) value["deletingPath"] = *deletingPath;
    if (originalFacts) value["originalFacts"] = originalFacts->toJSON();
    return value;
}

JournalEntry JournalEntry::fromJSON(const nlohmann::json& value) {
    JSONFields::object(value, "journal entry");
    JournalEntry entry;
    auto id = Uuid::parse(JSONFields::requiredString(value, "id"));
    if (!id) throw DecodingError("id is not a UUID");
    entry.id = *id;
    auto kind = kindFromRawValue(JSONFields::requiredString(value, "kind"));
    if (!kind) throw DecodingError("unknown kind");
    entry.kind = *kind;
    entry.originalPath = JSONFields::requiredString(value, "originalPath");
    entry.partialPath = JSONFields::requiredString(value, "partialPath");
    entry.finalPath = JSONFields::requiredString(value, "finalPath");
    if (auto* identity = JSONFields::optional(value, "lockedIdentity"))
        entry.lockedIdentity = FileIdentity::fromJSON(*identity);
    if (auto text = JSONFields::optionalString(value, "lockedAt")) {
        entry.lockedAt = DateFormat::parseISO8601(*text);
        if (!entry.lockedAt) throw DecodingError("lockedAt is not an ISO 8601 date");
    }
    entry.deletingPath = JSONFields::optionalString(value, "deletingPath");
    if (auto* facts = JSONFields::optional(value, "originalFacts"))
        entry.originalFacts = OriginalFacts::fromJSON(*facts);
    return entry;
}

}  // namespace corvane
