#include "Records/Characters.h"

#include <memory>

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

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

}  // namespace corvane
