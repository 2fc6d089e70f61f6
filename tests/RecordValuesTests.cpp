// The small records and primitives beside the engine's files: the volume marker, file identities,
// the state shared with the file-manager integration, the support directory's lock, and the
// encodings and text cuts they rely on.
#include <gtest/gtest.h>

#include "Records/Base64.h"
#include "Records/Characters.h"
#include "Records/FileIdentity.h"
#include "Records/ItemMarker.h"
#include "Records/SharedState.h"
#include "Records/SupportLock.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using namespace corvane::testing;

// Whether another process could take the support lock just now: "acquired" or "held".
std::string acquiredByAnotherProcess(const std::string& directory) {
    return outcomeInChild([&] { return SupportLock::acquire(directory) ? "acquired" : "held"; });
}

TEST(SmallRecords, WriteThenReadGivesTheSameRecordFromCompactText) {
    TempDir dir;
    ItemMarker marker(LockedItem::Kind::folder, "Taxes / 2024");
    marker.write(dir.path());
    EXPECT_EQ(readFile(dir / ".corvane-item.json"),
              R"({"formatVersion":1,"kind":"folder","name":"Taxes \/ 2024"})");
    EXPECT_EQ(ItemMarker::read(dir.path()), marker);

    ItemMarker replacement(LockedItem::Kind::file, "日本語.txt");
    replacement.mode = 0751;
    replacement.write(dir.path());
    EXPECT_EQ(ItemMarker::read(dir.path()), replacement) << "not replaced, or the mode was lost";

    writeFile(dir / ".corvane-item.json",
              R"({"formatVersion":1,"kind":"file","name":"a","mode":4096})");
    EXPECT_EQ(ItemMarker::read(dir.path()), ItemMarker(LockedItem::Kind::file, "a"))
        << "a mode beyond the permission bits must be ignored";

    std::string path = dir / "corvane/state.json";
    SharedState state{{"/home/a"}, 12};
    state.write(path);
    EXPECT_EQ(readFile(path), R"({"unlockedPaths":["\/home\/a"],"bootTime":12})");
    EXPECT_EQ(SharedState::read(path), state);

    SharedState several{{"/home/ana/Grüße", "/media/usb/日本語"}, 1740820500};
    several.write(path);
    EXPECT_EQ(SharedState::read(path), several);
    EXPECT_EQ(listing(dir / "corvane"), std::vector<std::string>{"state.json"});
}

// Both small records are read from places anyone may write: whatever is there reads as nothing.
TEST(SmallRecords, MissingOrMalformedReadAsNothing) {
    const struct {
        const char *why, *marker, *state;
    } cases[] = {
        {"empty file", "", ""},
        {"empty object", "{}", "{}"},
        {"array", R"([{"formatVersion":1,"kind":"file","name":"a"}])",
         R"([{"unlockedPaths":[],"bootTime":12}])"},
        {"truncated", R"({"formatVersion":1,"kind":"file","na)",
         R"({"unlockedPaths":["\/home\/a"],"bootT)"},
        {"unknown kind / paths not array", R"({"formatVersion":1,"kind":"symlink","name":"a"})",
         R"({"unlockedPaths":"\/home\/a","bootTime":12})"},
        {"name as number / path not string", R"({"formatVersion":1,"kind":"file","name":1})",
         R"({"unlockedPaths":[1],"bootTime":12})"},
        {"version / boot time as text", R"({"formatVersion":"1","kind":"file","name":"a"})",
         R"({"unlockedPaths":[],"bootTime":"12"})"},
        {"version overflowing int / no boot time",
         R"({"formatVersion":4294967297,"kind":"file","name":"a"})", R"({"unlockedPaths":[]})"},
    };
    TempDir dir;
    for (const auto& c : cases) {
        writeFile(dir / ".corvane-item.json", c.marker);
        EXPECT_EQ(ItemMarker::read(dir.path()), std::nullopt) << "marker: " << c.why;
        writeFile(dir / "state.json", c.state);
        EXPECT_EQ(SharedState::read(dir / "state.json"), std::nullopt) << "state: " << c.why;
    }
    TempDir empty;
    EXPECT_EQ(ItemMarker::read(empty.path()), std::nullopt) << "missing file";
    EXPECT_EQ(ItemMarker::read(empty / "no such volume"), std::nullopt) << "missing volume";
    EXPECT_EQ(SharedState::read(std::nullopt), std::nullopt) << "no path";
    EXPECT_EQ(SharedState::read(empty / "state.json"), std::nullopt) << "no file";
}

TEST(ItemMarker, SafeNamesAreSingleComponents) {
    using namespace std::string_literals;
    for (const std::string& name : {""s, "."s, ".."s, "a/b"s, "/"s, "a\0b"s, "\0"s})
        EXPECT_FALSE(ItemMarker::isSafeName(name))
            << "accepts unsafe \"" << name << "\" (" << name.size() << " bytes)";
    for (const char* name : {"...", ".hidden", "with space", "Grüße", "日本語", "a\\b", "..x"})
        EXPECT_TRUE(ItemMarker::isSafeName(name)) << "rejects safe \"" << name << "\"";
}

TEST(FileIdentity, TellsFilesApartByInodeAndBirth) {
    TempDir dir;
    EXPECT_EQ(FileIdentity::of(dir / "missing"), std::nullopt) << "a missing file has an identity";

    writeFile(dir / "target", "contents");
    ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
    auto target = FileIdentity::of(dir / "target");
    auto link = FileIdentity::of(dir / "link");
    ASSERT_TRUE(target && link);
    EXPECT_NE(link->inode, target->inode) << "a link is identified itself, not followed";
    EXPECT_EQ(FileIdentity::of(dir / "target"), target) << "stable for an untouched file";
    ASSERT_EQ(symlink("missing", (dir / "dangling").c_str()), 0);
    EXPECT_TRUE(FileIdentity::of(dir / "dangling").has_value())
        << "a dangling link is still a file";

    // Replaced by a copy under the same name, as an editor's safe save does.
    writeFile(dir / "copy", readFile(dir / "target"));
    ASSERT_EQ(rename((dir / "copy").c_str(), (dir / "target").c_str()), 0);
    EXPECT_NE(FileIdentity::of(dir / "target"), target) << "a replaced file kept its identity";

    const FileIdentity base{7, 1740820500, 250000000};
    EXPECT_EQ(FileIdentity::fromJSON(base.toJSON()), base) << "a field lost or swapped in JSON";
}

TEST(SharedState, UnlockedSetOnlyForTheCurrentBoot) {
    SharedState state{{"/b", "/a", "/b"}, 100};
    EXPECT_EQ(state.unlockedSet(99), std::nullopt);
    EXPECT_EQ(state.unlockedSet(100), (std::set<std::string>{"/a", "/b"}));
    auto none = SharedState{{}, 100}.unlockedSet(100);
    ASSERT_TRUE(none.has_value()) << "nothing unlocked is an answer, not an unknown";
    EXPECT_TRUE(none->empty());

    auto boot = SharedState::currentBootTime();
    EXPECT_GT(boot, 0);
    EXPECT_EQ(SharedState::currentBootTime(), boot);
}

TEST(SharedState, DefaultURLFollowsTheRuntimeDirectory) {
    const std::pair<std::optional<std::string>, std::optional<std::string>> rows[] = {
        {"/run/user/1000", "/run/user/1000/corvane/state.json"},
        {"", std::nullopt},
        {"run/user/1000", std::nullopt},
        {std::nullopt, std::nullopt},
    };
    for (const auto& [runtime, expected] : rows) {
        ScopedVariable variable("XDG_RUNTIME_DIR", runtime);
        EXPECT_EQ(SharedState::defaultURL(), expected) << runtime.value_or("(unset)");
    }
}

TEST(SupportLock, OneProcessAtATimeInAPrivateDirectory) {
    TempDir dir;
    std::string support = dir / "config/corvane";
    auto held = SupportLock::acquire(support);
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(permissions(dir / "config"), 0700u) << "a created parent must be private";
    EXPECT_EQ(permissions(support), 0700u) << "the support directory must be private";
    EXPECT_EQ(permissions(support + "/.corvane.lock"), 0600u) << "the lock file must be private";
    EXPECT_EQ(acquiredByAnotherProcess(support), "held") << "a child got the lock its parent holds";
    held.reset();
    EXPECT_EQ(acquiredByAnotherProcess(support), "acquired")
        << "released, yet a child cannot take it";
    EXPECT_EQ(listing(support), std::vector<std::string>{".corvane.lock"})
        << "release must keep the lock file and add nothing";

    // The child leaks its lock: only the system can drop it when the child ends.
    auto leak = [&] { return SupportLock::acquire(support).release() ? "leaked" : "held"; };
    EXPECT_EQ(outcomeInChild(leak), "leaked");
    EXPECT_NE(SupportLock::acquire(support), nullptr) << "a lock outlived the process that held it";
}

TEST(SupportLock, AFolderThatCannotBeMadeSaysWhy) {
    TempDir dir;
    writeFile(dir / "file", "");
    ASSERT_EQ(mkdir((dir / "readonly").c_str(), 0555), 0);
    ASSERT_EQ(mkdir((dir / "lockIsFolder").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir / "lockIsFolder/.corvane.lock").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((dir / "lockIsLink").c_str(), 0755), 0);
    ASSERT_EQ(symlink("../file", (dir / "lockIsLink/.corvane.lock").c_str()), 0);
    ASSERT_EQ(mkdir((dir / "lockIsPipe").c_str(), 0755), 0);
    ASSERT_EQ(mkfifo((dir / "lockIsPipe/.corvane.lock").c_str(), 0600), 0);
    ASSERT_EQ(chmod((dir / "lockIsPipe/.corvane.lock").c_str(), 0666), 0);  // open to the reader
    const auto notAFile = [](const std::string& support) {
        return "Corvane cannot use its lock file " + support +
               "/.corvane.lock, which is not a regular file; move it away, then try again.";
    };
    const std::pair<std::string, std::string> rows[] = {
        {dir / "file/corvane",
         "Corvane could not create its folder " + dir / "file/corvane" + ": Not a directory"},
        {dir / "readonly/corvane",
         "Corvane could not create its folder " + dir / "readonly/corvane" + ": Permission denied"},
        {dir / "lockIsFolder", notAFile(dir / "lockIsFolder")},
        {dir / "lockIsLink", notAFile(dir / "lockIsLink")},
        {dir / "lockIsPipe", notAFile(dir / "lockIsPipe")},
    };
    for (const auto& [support, sentence] : rows) {
        std::string outcome = outcomeInChild(
            [&]() -> std::string {
                try {
                    return SupportLock::acquire(support) ? "acquired" : "held elsewhere";
                } catch (const std::runtime_error& error) {
                    return error.what();
                }
            },
            true);
        EXPECT_EQ(outcome, sentence);
    }
    EXPECT_EQ(readFile(dir / "file"), "") << "the lock went through a link";
}

TEST(Base64, PaddedStandardTextOnly) {
    const std::pair<std::vector<std::uint8_t>, const char*> pairs[] = {
        {{}, ""},
        {{'f'}, "Zg=="},
        {{'f', 'o'}, "Zm8="},
        {{'f', 'o', 'o'}, "Zm9v"},
        {{'f', 'o', 'o', 'b', 'a', 'r'}, "Zm9vYmFy"},
        {{0x00, 0x01, 0x02, 0xFF}, "AAEC/w=="},
        {{0xFB, 0xFF, 0xBF}, "+/+/"},
    };
    for (const auto& [bytes, text] : pairs) {
        EXPECT_EQ(Base64::encode(bytes), text);
        EXPECT_EQ(Base64::decode(text), bytes) << text;
    }
    // Each of these is something a lenient decoder takes.
    for (const char* bad : {"Zg", "Zg=", "Zm9v\n", " Zm9v", "Zm9v ",
                            "Zg==Zg==", "Z===", "====", "Zg=a", "-_8=", "Zm 9v"})
        EXPECT_EQ(Base64::decode(bad), std::nullopt) << "took \"" << bad << "\"";
    EXPECT_EQ(Base64::decode(std::string_view("Zm9v\0\0\0\0", 8)), std::nullopt) << "NULs";
    std::vector<std::uint8_t> large(5 << 20);
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 7);
    EXPECT_EQ(Base64::decode(Base64::encode(large)), large) << "a large value";
}

TEST(Characters, PrefixEndsBetweenCharacters) {
    const std::string flag = "\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA";  // two regional indicators
    const std::tuple<std::string, std::size_t, std::string> rows[] = {
        {"abc", 5, "abc"},
        {"abc", 2, "ab"},
        {"abc", 0, ""},
        {"Grüße", 3, "Gr"},  // ü is two bytes
        {"Grüße", 4, "Grü"},
        {"e\xCC\x81x", 2, ""},  // e with a combining accent is one character
        {"e\xCC\x81x", 3, "e\xCC\x81"},
        {flag + flag, 12, flag},
        {"a\xFF\xFE" "b", 2, "a\xFF"},  // bytes that are not text count one each
        {"\xE9\xFF" "abc", 3, "\xE9\xFF" "a"},
    };
    for (const auto& [text, bytes, prefix] : rows)
        EXPECT_EQ(Characters::prefix(text, bytes), prefix) << text << " cut at " << bytes;
}

}  // namespace
}  // namespace corvane
