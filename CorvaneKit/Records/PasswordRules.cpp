#include "Records/PasswordRules.h"

#include <memory>

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "Records/Characters.h"
#include "Records/CorvaneError.h"

namespace corvane {

namespace {

struct CharacterClasses {
    bool lower = false;
    bool upper = false;
    bool digit = false;
    bool other = false;

    int count() const { return lower + upper + digit + other; }
};

// Calls `visit` with each grapheme cluster of `text`.
template <class Visit>
std::size_t forEachCharacter(std::string_view text, Visit visit) {
    icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> characters(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) {
        // Without break rules, count code points: still a safe lower bound for the length rule.
        std::size_t count = 0;
        for (int32_t i = 0; i < unicode.length(); i = unicode.moveIndex32(i, 1), ++count)
            visit(icu::UnicodeString(unicode, i, unicode.moveIndex32(i, 1) - i));
        return count;
    }
    characters->setText(unicode);
    std::size_t count = 0;
    for (int32_t start = characters->first(), end = characters->next();
         end != icu::BreakIterator::DONE; start = end, end = characters->next(), ++count)
        visit(icu::UnicodeString(unicode, start, end - start));
    return count;
}

void classify(const icu::UnicodeString& character, CharacterClasses& classes) {
    UChar32 first = character.char32At(0);
    if (character.countChar32() == 1) {
        classes.lower |= u_hasBinaryProperty(first, UCHAR_LOWERCASE) != 0;
        classes.upper |= u_hasBinaryProperty(first, UCHAR_UPPERCASE) != 0;
    } else {
        icu::UnicodeString lowered(character), raised(character);
        lowered.toLower(icu::Locale::getRoot());
        raised.toUpper(icu::Locale::getRoot());
        classes.lower |= lowered == character && raised != character;
        classes.upper |= raised == character && lowered != character;
    }
    bool numeric = u_getIntPropertyValue(first, UCHAR_NUMERIC_TYPE) != U_NT_NONE;
    bool letter = u_hasBinaryProperty(first, UCHAR_ALPHABETIC) != 0;
    classes.digit |= numeric;
    classes.other |= !letter && !numeric;
}

}  // namespace

std::size_t PasswordRules::characterCount(std::string_view text) {
    return Characters::count(text);
}

std::optional<std::string> PasswordRules::problem(std::string_view password) {
    if (characterCount(password) >= minimumLength) return std::nullopt;
    return "Use at least " + std::to_string(minimumLength) + " characters.";
}

std::optional<std::string> PasswordRules::inputProblem(std::string_view password) {
    if (password.empty()) return "The password is empty.";
    if (password.find_first_of("\r\n") != std::string_view::npos)
        return "A password cannot contain a line break.";
    if (password.size() > maximumBytes)
        return "A password can be at most " + std::to_string(maximumBytes) + " bytes long.";
    return std::nullopt;
}

PasswordRules::Strength PasswordRules::strength(std::string_view password) {
    CharacterClasses classes;
    std::size_t length =
        forEachCharacter(password, [&](const icu::UnicodeString& c) { classify(c, classes); });
    if (length >= 14) return Strength::strong;
    if (length >= 10 && classes.count() >= 3) return Strength::strong;
    if (length >= 8 && classes.count() >= 2) return Strength::fair;
    return Strength::weak;
}

std::string PasswordRules::stillMigratingMessage(const std::vector<std::string>& names) {
    static const std::string advice =
        "Find or unlock them, or choose Forget in the list if they are gone, then try again. Forgetting is safe: "
        "Corvane keeps your earlier passwords, so a forgotten item still opens if it turns up.";
    if (names.empty())
        return "Corvane is still moving some items to your current password. " + advice;
    std::vector<std::string> shown = names;
    if (shown.size() >= 4) {
        shown.resize(3);
        shown.push_back(std::to_string(names.size() - 3) + " more");
    }
    return "Corvane is still moving these items to your current password: " +
           CorvaneError::list(shown) + ". " + advice;
}

std::string PasswordRules::migrationFailureMessage(const std::vector<std::string>& names,
                                                  std::size_t count) {
    std::string subject = !names.empty()
                              ? CorvaneError::list(names)
                              : std::to_string(count) + (count == 1 ? " item" : " items");
    return subject + " could not be updated yet. Corvane will try again next time it opens.";
}

}  // namespace corvane
