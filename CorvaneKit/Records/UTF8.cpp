#include "Records/UTF8.h"

#include <cstdint>

namespace corvane {

namespace {

// The length of the valid sequence at `i`, or 0 when the bytes there are not valid UTF-8.
std::size_t validSequenceAt(std::string_view bytes, std::size_t i) {
    auto byte = static_cast<unsigned char>(bytes[i]);
    if (byte < 0x80) return 1;
    std::size_t length = (byte >> 5) == 0x6    ? 2
                         : (byte >> 4) == 0xE  ? 3
                         : (byte >> 3) == 0x1E ? 4
                                               : 0;
    if (length == 0 || i + length > bytes.size()) return 0;
    std::uint32_t scalar = byte & (0xFF >> (length + 1));
    for (std::size_t k = 1; k < length; ++k) {
        auto next = static_cast<unsigned char>(bytes[i + k]);
        if ((next >> 6) != 0x2) return 0;
        scalar = (scalar << 6) | (next & 0x3F);
    }
    static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (scalar < kSmallest[length] || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF))
        return 0;
    return length;
}

// How many bytes at `i` form the longest start of a sequence that could have been valid (at least
// one): they are replaced together, as the Unicode standard recommends.
std::size_t invalidSubpartAt(std::string_view bytes, std::size_t i) {
    auto lead = static_cast<unsigned char>(bytes[i]);
    std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                         : lead >= 0xE0 && lead <= 0xEF ? 3
                         : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                        : 1;
    std::size_t taken = 1;
    while (taken < length && i + taken < bytes.size()) {
        auto next = static_cast<unsigned char>(bytes[i + taken]);
        unsigned char low = 0x80, high = 0xBF;
        if (taken == 1) {
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        }
        if (next < low || next > high) break;
        ++taken;
    }
    return taken;
}

}  // namespace

bool UTF8::isValid(std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size();) {
        std::size_t length = validSequenceAt(bytes, i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

std::string UTF8::lenient(std::string_view bytes) {
    if (isValid(bytes)) return std::string(bytes);
    std::string text;
    text.reserve(bytes.size() + 8);
    for (std::size_t i = 0; i < bytes.size();) {
        if (std::size_t length = validSequenceAt(bytes, i)) {
            text.append(bytes.substr(i, length));
            i += length;
            continue;
        }
        text += "\xEF\xBF\xBD";
        i += invalidSubpartAt(bytes, i);
    }
    return text;
}

}  // namespace corvane
