#include "Records/Base64.h"

namespace corvane {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

std::string Base64::encode(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) group |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
        if (i + 2 < bytes.size()) group |= bytes[i + 2];
        text += kAlphabet[(group >> 18) & 63];
        text += kAlphabet[(group >> 12) & 63];
        text += i + 1 < bytes.size() ? kAlphabet[(group >> 6) & 63] : '=';
        text += i + 2 < bytes.size() ? kAlphabet[group & 63] : '=';
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> Base64::decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=') : 0;
        std::uint32_t group = 0;
        for (int k = 0; k < 4; ++k) {
            int value = k >= 4 - padding ? 0 : valueOf(text[i + static_cast<std::size_t>(k)]);
            if (value < 0) return std::nullopt;
            group = (group << 6) | static_cast<std::uint32_t>(value);
        }
        bytes.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2) bytes.push_back(static_cast<std::uint8_t>(group >> 8));
        if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(group));
    }
    return bytes;
}

}  // namespace corvane
