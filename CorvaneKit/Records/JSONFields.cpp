#include "Records/JSONFields.h"

#include <limits>

namespace corvane {

const nlohmann::json& JSONFields::object(const nlohmann::json& value, const char* what) {
    if (!value.is_object()) throw DecodingError(std::string(what) + " is not an object");
    return value;
}

const nlohmann::json& JSONFields::required(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end()) throw DecodingError(std::string("missing key ") + key);
    return *found;
}

const nlohmann::json* JSONFields::optional(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) return nullptr;
    return &*found;
}

std::string JSONFields::string(const nlohmann::json& value, const char* key) {
    if (!value.is_string()) throw DecodingError(std::string(key) + " is not a string");
    return value.get<std::string>();
}

std::int64_t JSONFields::int64(const nlohmann::json& value, const char* key) {
    if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<std::int64_t>();
    if (value.is_number_unsigned() &&
        value.get<std::uint64_t>() <=
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return static_cast<std::int64_t>(value.get<std::uint64_t>());
    throw DecodingError(std::string(key) + " is not a signed 64-bit integer");
}

std::uint64_t JSONFields::uint64(const nlohmann::json& value, const char* key) {
    if (value.is_number_unsigned()) return value.get<std::uint64_t>();
    throw DecodingError(std::string(key) + " is not an unsigned 64-bit integer");
}

std::optional<std::string> JSONFields::optionalString(const nlohmann::json& object,
                                                      const char* key) {
    if (auto* value = optional(object, key)) return string(*value, key);
    return std::nullopt;
}

std::optional<std::int64_t> JSONFields::optionalInt64(const nlohmann::json& object,
                                                      const char* key) {
    if (auto* value = optional(object, key)) return int64(*value, key);
    return std::nullopt;
}

}  // namespace corvane
