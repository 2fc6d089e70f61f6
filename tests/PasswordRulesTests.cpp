// Password length, strength and the migration message; the stored secret and its history.
#include <gtest/gtest.h>

#include <new>
#include <string_view>

#include "Records/JSONFields.h"
#include "Records/PasswordRules.h"
#include "Records/StoredSecret.h"

namespace corvane {
namespace {

using Strength = PasswordRules::Strength;

// A new password needs eight characters as the user sees them, whatever their bytes.
TEST(PasswordRules, LengthCountsWhatTheUserSees) {
    const std::string thumbsUp = "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD";  // with a skin tone
    const std::pair<std::string, std::size_t> rows[] = {
        {"", 0},
        {"abc", 3},
        {"Grüße", 5},
        {"e\xCC\x81", 1},  // e + combining acute accent
        {thumbsUp, 1},
        {"\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA", 1},              // a flag: two regional indicators
        {"\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x92\xBB", 1},  // woman technologist (joined)
        {"\r\n", 1},
        {"seven77", 7},
        {"eight888", 8},
        {thumbsUp + thumbsUp + thumbsUp + thumbsUp + thumbsUp + thumbsUp + thumbsUp + thumbsUp, 8},
        {"e\u0301e\u0301e\u0301abcd", 7},  // ten code points
    };
    const std::optional<std::string> tooShort = "Use at least 8 characters.";
    for (const auto& [text, count] : rows) {
        EXPECT_EQ(PasswordRules::characterCount(text), count) << "miscounted " << text;
        EXPECT_EQ(PasswordRules::problem(text), count < 8 ? tooShort : std::nullopt)
            << "length misjudged for " << text;
    }
}

TEST(PasswordRules, InputProblemBeforeAnyWork) {
    const std::string longest(PasswordRules::maximumBytes, 'x'),
        lineBreak = "A password cannot contain a line break.";
    const std::pair<std::string, std::optional<std::string>> rows[] = {
        {"", "The password is empty."},
        {"a\nb", lineBreak},
        {"ab\n", lineBreak},
        {"\rab", lineBreak},
        {longest + "x", "A password can be at most 2048 bytes long."},
        {longest, std::nullopt},
        {"x", std::nullopt},  // short is problem()'s to judge, for new passwords only
        {"tab\tand space ", std::nullopt},
    };
    for (const auto& [password, problem] : rows)
        EXPECT_EQ(PasswordRules::inputProblem(password), problem)
            << "misjudged a password of " << password.size() << " bytes";
}

TEST(PasswordRules, StrengthTable) {
    const std::pair<const char*, Strength> rows[] = {
        {"abcdefgh", Strength::weak},            // one class
        {"abcdefgh1", Strength::fair},           // lower and digit
        {"abcdefgh ", Strength::fair},           // lower and other
        {"Abcdefgh1", Strength::fair},           // three classes but only nine characters
        {"Abcdefgh12", Strength::strong},        // ten characters, three classes
        {"abcdefghij123", Strength::fair},       // thirteen characters, two classes
        {"abcdefghijklmnop", Strength::strong},  // length alone
        {"aaaaaaaaaaaaaa", Strength::strong},
        {"Abc1!", Strength::weak},  // too short whatever the mix
        {"ABCDEFGHIJ", Strength::weak},
        {"ÀÉÎÕÜàéî12", Strength::strong},        // non-ASCII letters have case too
        {"abcdefg\xD9\xA3", Strength::fair},     // an Arabic-Indic digit is numeric
        {"пароль2024", Strength::fair},          // Cyrillic lower case and digits
        {"日本語のパスワード", Strength::weak},  // letters without case: no class at all
        {"日本語のパスワード!1", Strength::fair},
        {"abcdefg\xF0\x9F\x91\x8D", Strength::fair},  // an emoji is "other"
    };
    for (const auto& [password, strength] : rows)
        EXPECT_EQ(PasswordRules::strength(password), strength) << "misjudged " << password;
}

TEST(PasswordRules, StillMigratingMessageNamesAtMostThree) {
    const std::string
        moving = "Corvane is still moving ",
        advice =
            "Find or unlock them, or choose Forget in the list if they are gone, then try again. Forgetting is safe: "
            "Corvane keeps your earlier passwords, so a forgotten item still opens if it turns up.";
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{}, "some items to your current password. "},
        {{"A", "B", "C"}, "these items to your current password: A, B and C. "},
        {{"A", "B", "C", "D"}, "these items to your current password: A, B, C and 1 more. "},
        {{"A", "B", "C", "D", "E", "F", "G"},
         "these items to your current password: A, B, C and 4 more. "},
    };
    for (const auto& [names, middle] : rows)
        EXPECT_EQ(PasswordRules::stillMigratingMessage(names), moving + middle + advice)
            << "wrong names or count for " << names.size() << " items";
}

TEST(StoredSecret, ChangesKeepEveryEarlierPasswordOnce) {
    StoredSecret first{"A", 1, std::nullopt, {}};
    EXPECT_EQ(first.openCandidates(), std::vector<std::string>{"A"});

    StoredSecret second = first.changing("B");
    EXPECT_EQ(second, (StoredSecret{"B", 2, "A", {"A"}}));
    StoredSecret third = second.changing("C");
    EXPECT_EQ(third, (StoredSecret{"C", 3, "B", {"A", "B"}}));
    EXPECT_EQ(third.openCandidates(), (std::vector<std::string>{"C", "B", "A"}));

    StoredSecret back = second.changing("A");
    EXPECT_EQ(back, (StoredSecret{"A", 3, "B", {"A", "B"}}));
    EXPECT_EQ(back.openCandidates(), (std::vector<std::string>{"A", "B"}));

    EXPECT_EQ(third.migrated(), (StoredSecret{"C", 3, std::nullopt, {"A", "B"}}));
}

TEST(StoredSecret, PasswordsDoNotOutliveTheValue) {
    // Short enough to sit inside the value itself, where nothing else clears them.
    alignas(StoredSecret) unsigned char storage[sizeof(StoredSecret)];
    auto* secret = new (storage) StoredSecret{"hunter22", 2, "tiger11", {}};
    const std::string_view memory(reinterpret_cast<const char*>(storage), sizeof storage);
    ASSERT_NE(memory.find("hunter22"), std::string_view::npos) << "kept elsewhere: cannot tell";
    secret->~StoredSecret();
    EXPECT_EQ(memory.find("hunter22"), std::string_view::npos) << "the password stayed in memory";
    EXPECT_EQ(memory.find("tiger11"), std::string_view::npos) << "the previous one stayed";
}

TEST(StoredSecret, JSONFormAndLenientReading) {
    EXPECT_EQ((StoredSecret{"p\"w/1", 2, "old", {"old"}}).encode(),
              R"({"password":"p\"w\/1","generation":2,"previous":"old","history":["old"]})");
    EXPECT_EQ((StoredSecret{"pw", 1, std::nullopt, {}}).encode(),
              R"({"password":"pw","generation":1,"history":[]})");

    EXPECT_EQ(StoredSecret::decode(R"({"generation":4,"password":"x/y"})"),
              (StoredSecret{"x/y", 4, std::nullopt, {}}));
    EXPECT_EQ(
        StoredSecret::decode(R"({"password":"x","generation":4,"previous":null,"history":null})"),
        (StoredSecret{"x", 4, std::nullopt, {}}));
    StoredSecret full{"Grüße", 9, "b", {"a", "b"}};
    EXPECT_EQ(StoredSecret::decode(full.encode()), full);

    // Up to 64 KiB, like every small record.
    std::string padded = R"({"password":"pw","generation":1,"history":[]})";
    padded.resize(64 << 10, ' ');
    EXPECT_EQ(StoredSecret::decode(padded).password, "pw");
    EXPECT_THROW(StoredSecret::decode(padded + " "), DecodingError) << "one byte over the limit";

    for (const char* bad : {"", "{}", R"({"password":"x"})", R"({"password":1,"generation":1})",
                            R"({"password":"x","generation":1.5})",
                            R"({"password":"x","generation":1,"history":"a"})"})
        EXPECT_THROW(StoredSecret::decode(bad), DecodingError) << bad;
}

}  // namespace
}  // namespace corvane
