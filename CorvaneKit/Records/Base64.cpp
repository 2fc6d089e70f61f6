#include "Records/Base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <climits>

namespace corvane {

namespace {

bool isAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

// How many '=' end `text`, or -1 when it is not padded standard base64 at all. OpenSSL's decoder
// would also take surrounding blanks, which the records never hold.
int paddingOf(std::string_view text) {
    if (text.size() % 4 != 0) return -1;
    int padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    std::string_view data = text.substr(0, text.size() - static_cast<std::size_t>(padding));
    return std::all_of(data.begin(), data.end(), isAlphabet) ? padding : -1;
}

}  // namespace

std::string Base64::encode(const std::vector<std::uint8_t>& bytes) {
    // Whole groups of three at a time, so that no call's length overflows an int.
    constexpr std::size_t chunk = 3 << 20;
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += chunk) {
        std::size_t length = std::min(chunk, bytes.size() - at);
        std::size_t start = text.size();
        text.resize(start + (length + 2) / 3 * 4 + 1);  // with room for the terminating NUL
        int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data() + start),
                                      bytes.data() + at, static_cast<int>(length));
        text.resize(start + static_cast<std::size_t>(written));
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> Base64::decode(std::string_view text) {
    int padding = paddingOf(text);
    if (padding < 0 || text.size() > INT_MAX) return std::nullopt;
    std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
    int decoded = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    if (decoded < 0 || static_cast<std::size_t>(decoded) != bytes.size()) return std::nullopt;
    // The padding comes out as zero bytes of its own.
    bytes.resize(bytes.size() - static_cast<std::size_t>(padding));
    return bytes;
}

}  // namespace corvane
