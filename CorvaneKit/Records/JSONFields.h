// Typed access to the fields of a decoded JSON object, for the record decoders. Any missing
// required key or wrong type throws DecodingError, which the record files treat as damage.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace corvane {

struct DecodingError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct JSONFields {
    static const nlohmann::json& object(const nlohmann::json& value, const char* what);
    static const nlohmann::json& required(const nlohmann::json& object, const char* key);
    // Missing and null are both absent.
    static const nlohmann::json* optional(const nlohmann::json& object, const char* key);

    static std::string string(const nlohmann::json& value, const char* key);
    static std::int64_t int64(const nlohmann::json& value, const char* key);
    static std::uint64_t uint64(const nlohmann::json& value, const char* key);

    static std::string requiredString(const nlohmann::json& object, const char* key) {
        return string(required(object, key), key);
    }
    static std::int64_t requiredInt64(const nlohmann::json& object, const char* key) {
        return int64(required(object, key), key);
    }
    static std::optional<std::string> optionalString(const nlohmann::json& object, const char* key);
    static std::optional<std::int64_t> optionalInt64(const nlohmann::json& object, const char* key);
};

}  // namespace corvane
