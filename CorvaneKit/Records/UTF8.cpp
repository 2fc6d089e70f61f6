#include "Records/UTF8.h"

#include <unicode/utf8.h>

#include <cstdint>

namespace corvane {

namespace {

// Calls `visit(start, length, valid)` for each code point of `bytes` and each maximal invalid
// subpart, as ICU reads them (the Unicode standard's recommended practice); stops early when
// `visit` returns false.
template <class Visit>
void forEachSequence(std::string_view bytes, Visit visit) {
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const auto length = static_cast<std::int64_t>(bytes.size());
    for (std::int64_t at = 0; at < length;) {
        std::int64_t start = at;
        UChar32 scalar = 0;
        U8_NEXT(data, at, length, scalar);
        if (!visit(static_cast<std::size_t>(start), static_cast<std::size_t>(at - start),
                   scalar >= 0))
            return;
    }
}

}  // namespace

bool UTF8::isValid(std::string_view bytes) {
    bool valid = true;
    forEachSequence(bytes, [&](std::size_t, std::size_t, bool text) { return valid = text; });
    return valid;
}

std::string UTF8::lenient(std::string_view bytes) {
    if (isValid(bytes)) return std::string(bytes);
    std::string text;
    text.reserve(bytes.size() + 8);
    forEachSequence(bytes, [&](std::size_t start, std::size_t length, bool valid) {
        if (valid)
            text.append(bytes.substr(start, length));
        else
            text += "\xEF\xBF\xBD";
        return true;
    });
    return text;
}

}  // namespace corvane
