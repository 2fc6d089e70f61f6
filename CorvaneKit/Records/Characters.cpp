#include "Records/Characters.h"

#include <memory>

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

namespace corvane {

namespace {

icu::UnicodeString unicodeOf(std::string_view text) {
    return icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::unique_ptr<icu::BreakIterator> characterBreaks(const icu::UnicodeString& text) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> breaks(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) return nullptr;
    breaks->setText(text);
    return breaks;
}

}  // namespace

std::size_t Characters::count(std::string_view text) {
    icu::UnicodeString unicode = unicodeOf(text);
    auto breaks = characterBreaks(unicode);
    if (!breaks)
        return static_cast<std::size_t>(unicode.countChar32());  // code points: still a lower bound
    std::size_t count = 0;
    for (int32_t end = breaks->next(); end != icu::BreakIterator::DONE; end = breaks->next())
        ++count;
    return count;
}

std::string Characters::droppingLast(std::string_view text) {
    if (text.empty()) return "";
    icu::UnicodeString unicode = unicodeOf(text);
    auto breaks = characterBreaks(unicode);
    int32_t lastStart =
        breaks ? breaks->preceding(unicode.length()) : unicode.moveIndex32(unicode.length(), -1);
    if (lastStart == icu::BreakIterator::DONE) lastStart = 0;
    std::string shortened;
    return icu::UnicodeString(unicode, 0, lastStart).toUTF8String(shortened);
}

std::string Characters::prefix(std::string_view text, std::size_t bytes) {
    if (text.size() <= bytes) return std::string(text);
    // Breaks found on the UTF-8 itself are byte offsets, and bytes that are not text stay as
    // they are.
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<UText, UText* (*)(UText*)> utf8(
        utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status),
        utext_close);
    std::unique_ptr<icu::BreakIterator> breaks(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_SUCCESS(status)) breaks->setText(utf8.get(), status);
    // The start of the sequence holding the first byte that does not fit: no sequence is cut in
    // two, even without break rules. The iterator would take any offset back to one.
    auto end = static_cast<int32_t>(bytes);
    U8_SET_CP_START(reinterpret_cast<const uint8_t*>(text.data()), 0, end);
    if (U_SUCCESS(status) && !breaks->isBoundary(end)) {
        end = breaks->preceding(end);
        if (end == icu::BreakIterator::DONE) end = 0;
    }
    return std::string(text.substr(0, static_cast<std::size_t>(end)));
}

}  // namespace corvane
