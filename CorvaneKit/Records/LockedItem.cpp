#include "Records/LockedItem.h"

#include "Records/Base64.h"
#include "Records/JSONFields.h"

namespace corvane {

std::string_view LockedItem::rawValue(Kind kind) {
    return kind == Kind::file ? "file" : "folder";
}

std::optional<LockedItem::Kind> LockedItem::kindFromRawValue(std::string_view raw) {
    if (raw == "file") return Kind::file;
    if (raw == "folder") return Kind::folder;
    return std::nullopt;
}

std::string_view LockedItem::rawValue(Stage stage) {
    return stage == Stage::originalPending ? "originalPending" : "complete";
}

std::optional<LockedItem::Stage> LockedItem::stageFromRawValue(std::string_view raw) {
    if (raw == "originalPending") return Stage::originalPending;
    if (raw == "complete") return Stage::complete;
    return std::nullopt;
}

nlohmann::json LockedItem::toJSON() const {
    nlohmann::json value = {
        {"id", id.string()},
        {"displayName", displayName},
        {"kind", rawValue(kind)},
        {"lastKnownPath", lastKnownPath},
        {"createdAt", DateFormat::iso8601(createdAt)},
        {"passwordGeneration", passwordGeneration},
        {"stage", rawValue(stage)},
    };
    if (bookmark) value["bookmark"] = Base64::encode(*bookmark);
    if (originalPath) value["originalPath"] = *originalPath;
    if (contentSize) value["contentSize"] = *contentSize;
    return value;
}

LockedItem LockedItem::fromJSON(const nlohmann::json& value) {
    JSONFields::object(value, "locked item");
    LockedItem item;
    auto id = Uuid::parse(JSONFields::requiredString(value, "id"));
    if (!id) throw DecodingError("id is not a UUID");
    item.id = *id;
    item.displayName = JSONFields::requiredString(value, "displayName");
    auto kind = kindFromRawValue(JSONFields::requiredString(value, "kind"));
    if (!kind) throw DecodingError("unknown kind");
    item.kind = *kind;
    if (auto text = JSONFields::optionalString(value, "bookmark")) {
        item.bookmark = Base64::decode(*text);
        if (!item.bookmark) throw DecodingError("bookmark is not base64");
    }
    item.lastKnownPath = JSONFields::requiredString(value, "lastKnownPath");
    auto createdAt = DateFormat::parseISO8601(JSONFields::requiredString(value, "createdAt"));
    if (!createdAt) throw DecodingError("createdAt is not an ISO 8601 date");
    item.createdAt = *createdAt;
    item.passwordGeneration = JSONFields::requiredInt64(value, "passwordGeneration");
    auto stage = stageFromRawValue(JSONFields::requiredString(value, "stage"));
    if (!stage) throw DecodingError("unknown stage");
    item.stage = *stage;
    item.originalPath = JSONFields::optionalString(value, "originalPath");
    item.contentSize = JSONFields::optionalInt64(value, "contentSize");
    return item;
}

}  // namespace corvane
