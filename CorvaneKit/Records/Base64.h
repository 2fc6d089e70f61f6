// Standard base64 with padding, as the records store bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct Base64 {
    static std::string encode(const std::vector<std::uint8_t>& bytes);
    // Nothing for text that is not padded standard base64.
    static std::optional<std::vector<std::uint8_t>> decode(std::string_view text);
};

}  // namespace corvane
