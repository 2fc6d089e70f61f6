// The engine's JSON record files: their exact bytes, what readers tolerate, what counts as damage,
// how damage is kept for a person to look at, and the item index and journal built on them.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <ctime>
#include <regex>
#include <system_error>

#include "Records/ItemIndex.h"
#include "Records/ItemMarker.h"
#include "Records/JSONCodec.h"
#include "Records/OperationJournal.h"
#include "Records/SharedState.h"
#include "Records/UserSettings.h"
#include "TestSupport.h"

// Every umask call the process makes, counted on its way to the C library.
static std::atomic<int> umaskCalls{0};

extern "C" mode_t umask(mode_t mask) noexcept {
    ++umaskCalls;
    static auto* const system = reinterpret_cast<mode_t (*)(mode_t)>(dlsym(RTLD_NEXT, "umask"));
    return system(mask);
}

namespace corvane {
namespace {

using namespace corvane::testing;

const std::string kData = CORVANE_TEST_DATA;

Uuid uuid(const char* text) {
    return Uuid::parse(text).value();
}
Date date(const char* text) {
    return DateFormat::parseISO8601(text).value();
}

// The records held by tests/data/items.json: one with every optional, one with none.
std::vector<LockedItem> goldenItems() {
    LockedItem full;
    full.id = uuid("0f4a1c2e-8b7d-4e21-9c3a-5d6e7f809a1b");
    full.displayName = "Steuererklärung 日本語.pdf";
    full.kind = LockedItem::Kind::file;
    full.bookmark = std::vector<std::uint8_t>{0x00, 0x01, 0x02, 0xFF};
    full.lastKnownPath = "/home/ana/Documents/Taxes 2024/Steuererklärung 日本語.pdf";
    full.createdAt = date("2025-03-01T09:15:00Z");
    full.passwordGeneration = 3;
    full.stage = LockedItem::Stage::originalPending;
    full.originalPath = "/home/ana/Desktop/Steuererklärung 日本語.pdf";
    full.contentSize = 1048576;

    LockedItem minimal;
    minimal.id = uuid("7C2E9D41-3A5B-4F60-8E1D-2B3C4D5E6F70");
    minimal.displayName = "Photos";
    minimal.kind = LockedItem::Kind::folder;
    minimal.lastKnownPath = "/media/usb/Photos";
    minimal.createdAt = date("2024-12-31T23:59:59Z");
    minimal.passwordGeneration = 1;
    minimal.stage = LockedItem::Stage::complete;
    return {full, minimal};
}

// The entries held by tests/data/operations.json.
std::vector<JournalEntry> goldenEntries() {
    JournalEntry full;
    full.id = uuid("A1B2C3D4-E5F6-4789-8ABC-DEF012345678");
    full.kind = JournalEntry::Kind::lock;
    full.originalPath = "/home/ana/Documents/Grüße";
    full.partialPath = "/home/ana/Documents/.Grüße.corvane-partial";
    full.finalPath = "/home/ana/Documents/Grüße.corvane";
    full.lockedIdentity = FileIdentity{1234567, 1740820500, 250000000};
    full.lockedAt = date("2025-03-01T10:15:00+01:00");
    full.deletingPath = "/home/ana/Documents/.Grüße.corvane-deleting";
    full.originalFacts = OriginalFacts{
        "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08", 1740820500250000000};

    JournalEntry minimal;
    minimal.id = uuid("5E6F7081-92A3-44B5-86C7-D8E9FA0B1C2D");
    minimal.kind = JournalEntry::Kind::restore;
    minimal.originalPath = "/srv/Ärzte/Befund.pdf";
    minimal.partialPath = "/srv/Ärzte/.Befund.pdf.partial";
    minimal.finalPath = "/srv/Ärzte/Befund.pdf.corvane";
    return {full, minimal};
}

LockedItem itemNamed(const std::string& name, const std::string& path) {
    LockedItem item;
    item.id = Uuid::random();
    item.displayName = name;
    item.lastKnownPath = path;
    item.createdAt = date("2025-03-01T09:15:00Z");
    return item;
}

JournalEntry entryFor(const std::string& path) {
    JournalEntry entry;
    entry.id = Uuid::random();
    entry.originalPath = path;
    entry.partialPath = path + ".partial";
    entry.finalPath = path + ".corvane";
    return entry;
}

// The one file a folder should hold after a damaged record was set aside, or "" when it holds
// anything else.
std::string onlySetAsideFile(const std::string& folder, const std::string& name) {
    auto names = listing(folder);
    static const std::regex stamped(R"(.*\.damaged-\d{8}-\d{6})");
    if (names.size() != 1 || names[0].rfind(name + ".damaged-", 0) != 0 ||
        !std::regex_match(names[0], stamped))
        return "";
    return folder + "/" + names[0];
}

// What `read` ended with, as one line ("returned X", "DecodingError", "system_error ENAME"), in a
// child process (as nobody when `unprivileged`), so that a read that blocks fails the test.
std::string outcomeWithin(const std::function<std::string()>& read, bool unprivileged = false) {
    return testing::outcomeInChild(
        [&]() -> std::string {
            try {
                return "returned " + read();
            } catch (const DecodingError&) {
                return "DecodingError";
            } catch (const std::system_error& error) {
                return std::string("system_error ") + strerrorname_np(error.code().value());
            }
        },
        unprivileged);
}

// `text` padded with trailing spaces (still the same JSON) to exactly `size` bytes.
std::string padded(std::string text, std::size_t size) {
    text.resize(size, ' ');
    return text;
}

// Runs `body` with TZ set to `zone`, then puts back the zone that was there.
void inTimeZone(const char* zone, const std::function<void()>& body) {
    {
        ScopedVariable tz("TZ", zone);
        tzset();
        body();
    }
    tzset();
}

TEST(JSONCodec, GoldenFilesAreWrittenAndReadByteForByte) {
    TempDir dir;
    ItemIndex(dir / "items.json").save(goldenItems());
    EXPECT_EQ(readFile(dir / "items.json"), readFile(kData + "/items.json"));
    OperationJournal journal(dir / "operations.json");
    for (const auto& entry : goldenEntries()) journal.add(entry);
    EXPECT_EQ(readFile(dir / "operations.json"), readFile(kData + "/operations.json"));
    ItemIndex(dir / "empty.json").save({});
    EXPECT_EQ(readFile(dir / "empty.json"), "[]");

    EXPECT_EQ(ItemIndex(kData + "/items.json").load(), goldenItems());
    EXPECT_EQ(OperationJournal(kData + "/operations.json").load(), goldenEntries());
}

TEST(JSONCodec, StringsSurviveEncodingAndInvalidUTF8IsRefused) {
    for (std::string text : {std::string("a/b\\c\"d"), std::string("tab\tnew\nline\x01\x1f end"),
                             std::string("日本語 / Grüße")}) {
        std::string encoded = JSONCodec::encode(nlohmann::json::array({text}));
        EXPECT_EQ(JSONCodec::decode(encoded), nlohmann::json::array({text})) << encoded;
        std::string quoted =
            encoded.substr(encoded.find('"'), encoded.rfind('"') - encoded.find('"') + 1);
        EXPECT_TRUE(std::none_of(quoted.begin(), quoted.end(), [](unsigned char c) {
            return c < 0x20;
        })) << quoted;
        for (std::size_t slash = quoted.find('/'); slash != std::string::npos;
             slash = quoted.find('/', slash + 1))
            EXPECT_EQ(quoted[slash - 1], '\\') << quoted;
    }
    EXPECT_THROW(JSONCodec::encode(nlohmann::json::array({std::string("\xC3\x28")})),
                 std::invalid_argument);
    EXPECT_THROW(JSONCodec::encode(nlohmann::json::array({std::string("\xED\xA0\x80")})),
                 std::invalid_argument);
}

TEST(JSONCodec, ReadersTolerateUnescapedSlashesNullsAndUnknownKeys) {
    TempDir dir;
    writeFile(dir / "items.json",
              R"([{"id":"7c2e9d41-3a5b-4f60-8e1d-2b3c4d5e6f70","displayName":"Photos",
        "kind":"folder","lastKnownPath":"/media/usb/Photos","createdAt":"2024-12-31T23:59:59Z",
        "passwordGeneration":1,"stage":"complete","bookmark":null,"originalPath":null,
        "contentSize":null,"addedInALaterVersion":{"x":[1,2]}}])");
    auto loaded = ItemIndex(dir / "items.json").loadReportingDamage();
    EXPECT_FALSE(loaded.damaged);
    EXPECT_EQ(loaded.items, std::vector<LockedItem>{goldenItems()[1]});

    writeFile(dir / "operations.json",
              R"([{"id":"5E6F7081-92A3-44B5-86C7-D8E9FA0B1C2D","kind":"restore",
        "originalPath":"/srv/Ärzte/Befund.pdf","partialPath":"\/srv\/Ärzte\/.Befund.pdf.partial",
        "finalPath":"/srv/Ärzte/Befund.pdf.corvane","lockedIdentity":null,"lockedAt":null,
        "deletingPath":null,"note":"ignored"}])");
    EXPECT_EQ(OperationJournal(dir / "operations.json").load(),
              std::vector<JournalEntry>{goldenEntries()[1]});
}

// Writes `contents` as a record file, loads it and checks that it was set aside intact.
template <class Records>
void expectSetAside(const std::string& contents, const std::string& why) {
    TempDir dir;
    writeFile(dir / "records.json", contents);
    auto loaded = Records(dir / "records.json").loadReportingDamage();
    EXPECT_TRUE(loaded.damaged) << why;
    std::string kept = onlySetAsideFile(dir.path(), "records.json");
    ASSERT_NE(kept, "") << why;
    EXPECT_EQ(readFile(kept), contents) << why;
    if constexpr (std::is_same_v<Records, ItemIndex>)
        EXPECT_TRUE(loaded.items.empty()) << why;
    else
        EXPECT_TRUE(loaded.entries.empty()) << why;
}

// The first record of a golden file with one change, as a record file.
std::string goldenWith(const std::string& file,
                       const std::function<void(nlohmann::json&)>& change) {
    auto record = nlohmann::json::parse(readFile(kData + "/" + file))[0];
    change(record);
    return nlohmann::json::array({record}).dump();
}

// Any stored integer keeps its meaning; only a missing value or one of another kind is the default.
TEST(UserSettings, ReadsWhatIsStoredAndDefaultsOnlyWhatIsNot) {
    const std::tuple<const char*, int, bool> rows[] = {
        {R"({"corvane.idleMinutes":5,"corvane.touchIDEnabled":false})", 5, false},
        {R"({"corvane.idleMinutes":0})", 0, true},
        {R"({"corvane.idleMinutes":-3})", -3, true},
        {R"({"corvane.idleMinutes":5000000})", 5000000, true},
        {R"({"corvane.idleMinutes":18446744073709551615})", INT_MAX, true},
        {R"({"corvane.idleMinutes":-9223372036854775808})", INT_MIN, true},
        {R"({"corvane.idleMinutes":5.5,"corvane.touchIDEnabled":"no"})", 15, true},
        {R"({"corvane.idleMinutes":"5"})", 15, true},
        {R"({})", 15, true},
        {R"([5])", 15, true},
    };
    TempDir dir;
    for (const auto& [contents, minutes, fingerprint] : rows) {
        writeFile(dir / "settings.json", contents);
        UserSettings settings(dir / "settings.json");
        EXPECT_EQ(settings.idleMinutes(), minutes) << contents;
        EXPECT_EQ(settings.touchIDEnabled(), fingerprint) << contents;
    }
}

TEST(JSONCodec, UndecodableRecordFilesAreSetAsideNotDeleted) {
    auto item = [](const std::function<void(nlohmann::json&)>& change) {
        return goldenWith("items.json", change);
    };
    std::vector<std::pair<std::string, std::string>> items = {
        {"zero bytes", ""},
        {"object", "{}"},
        {"wrong id type", R"([{"id":1}])"},
        {"element not object", "[1]"},
        {"fractional seconds", item([](auto& r) { r["createdAt"] = "2025-03-01T09:15:00.5Z"; })},
        {"date without zone", item([](auto& r) { r["createdAt"] = "2025-03-01T09:15:00"; })},
        {"unknown kind", item([](auto& r) { r["kind"] = "symlink"; })},
        {"unknown stage", item([](auto& r) { r["stage"] = "done"; })},
        {"generation as text", item([](auto& r) { r["passwordGeneration"] = "3"; })},
        {"generation fractional", item([](auto& r) { r["passwordGeneration"] = 3.5; })},
        {"name as number", item([](auto& r) { r["displayName"] = 7; })},
        {"bookmark not base64", item([](auto& r) { r["bookmark"] = "AAEC/w="; })},
        {"id not a uuid", item([](auto& r) { r["id"] = "0F4A1C2E8B7D4E219C3A5D6E7F809A1B"; })},
        {"size as text", item([](auto& r) { r["contentSize"] = "1"; })},
    };
    for (const char* key :
         {"id", "displayName", "kind", "lastKnownPath", "createdAt", "passwordGeneration", "stage"})
        items.emplace_back(std::string("missing ") + key, item([&](auto& r) { r.erase(key); }));
    for (const auto& [why, contents] : items) expectSetAside<ItemIndex>(contents, "item: " + why);

    auto entry = [](const std::function<void(nlohmann::json&)>& change) {
        return goldenWith("operations.json", change);
    };
    std::vector<std::pair<std::string, std::string>> entries = {
        {"object", R"({"id":"A1B2C3D4-E5F6-4789-8ABC-DEF012345678"})"},
        {"unknown kind", entry([](auto& r) { r["kind"] = "move"; })},
        {"fractional seconds", entry([](auto& r) { r["lockedAt"] = "2025-03-01T09:15:00.5Z"; })},
        {"identity not object", entry([](auto& r) { r["lockedIdentity"] = 1234567; })},
        {"negative inode", entry([](auto& r) { r["lockedIdentity"]["inode"] = -1; })},
        {"path as array", entry([](auto& r) { r["finalPath"] = nlohmann::json::array({"/a"}); })},
        {"facts digest upper-case",
         entry([](auto& r) { r["originalFacts"]["digest"] = std::string(64, 'A'); })},
        {"facts digest short", entry([](auto& r) { r["originalFacts"]["digest"] = "9f86"; })},
        {"facts time as text",
         entry([](auto& r) { r["originalFacts"]["itemChangedNanoseconds"] = "1"; })},
    };
    for (const char* key : {"id", "kind", "originalPath", "partialPath", "finalPath"})
        entries.emplace_back(std::string("missing ") + key, entry([&](auto& r) { r.erase(key); }));
    for (const char* key : {"inode", "birthSeconds", "birthNanoseconds"})
        entries.emplace_back(std::string("identity missing ") + key,
                             entry([&](auto& r) { r["lockedIdentity"].erase(key); }));
    for (const auto& [why, contents] : entries)
        expectSetAside<OperationJournal>(contents, "entry: " + why);

    TempDir dir;
    writeFile(dir / "items.json", "[]");
    auto loaded = ItemIndex(dir / "items.json").loadReportingDamage();
    EXPECT_FALSE(loaded.damaged);
    EXPECT_TRUE(loaded.items.empty());
    EXPECT_EQ(listing(dir.path()), std::vector<std::string>{"items.json"});
    EXPECT_FALSE(ItemIndex(dir / "absent.json").loadReportingDamage().damaged);
}

TEST(JSONCodec, SetAsideNamesCountUpWithinOneSecondInLocalTime) {
    TempDir dir;
    auto now = std::chrono::system_clock::time_point(date("2025-03-01T09:15:00Z")) +
               std::chrono::milliseconds(400);
    inTimeZone("UTC", [&] {
        for (const char* expected :
             {"items.json.damaged-20250301-091500", "items.json.damaged-20250301-091500-2",
              "items.json.damaged-20250301-091500-3"}) {
            writeFile(dir / "items.json", expected);
            EXPECT_EQ(JSONCodec::setAside(dir / "items.json", now), dir / expected);
            EXPECT_EQ(readFile(dir / expected), expected);
        }
    });
    // POSIX zone two hours east of UTC: the stamp is the wall clock a person sees.
    inTimeZone("XYZ-2", [&] {
        writeFile(dir / "operations.json", "x");
        EXPECT_EQ(JSONCodec::setAside(dir / "operations.json", now),
                  dir / "operations.json.damaged-20250301-111500");
    });
    EXPECT_EQ(listing(dir.path()).size(), 4u);
}

// Every truncation of a valid file must be kept byte for byte, whatever the parser makes of it.
template <class Records>
void tortureWithPrefixes(const std::string& file) {
    const std::string whole = readFile(kData + "/" + file);
    for (std::size_t length = 0; length < whole.size() && !::testing::Test::HasFailure(); ++length)
        expectSetAside<Records>(whole.substr(0, length),
                                file + " cut to " + std::to_string(length));
    TempDir dir;
    writeFile(dir / "records.json", whole);
    EXPECT_FALSE(Records(dir / "records.json").loadReportingDamage().damaged) << file;
}

TEST(JSONCodec, EveryTruncatedRecordFileIsSetAsideIntact) {
    tortureWithPrefixes<ItemIndex>("items.json");
    tortureWithPrefixes<OperationJournal>("operations.json");
}

TEST(JSONCodec, ReadFailuresThrowAndLeaveTheFileInPlace) {
    TempDir dir;
    // A folder the unprivileged user may write, so a wrongly taken "damage" path could rename.
    std::string owned = dir / "owned";
    writeFile(owned + "/items.json", readFile(kData + "/items.json"));
    writeFile(owned + "/operations.json", readFile(kData + "/operations.json"));
    ASSERT_EQ(chown(owned.c_str(), kNobody, kNobody), 0);
    for (const char* name : {"items.json", "operations.json"}) {
        ASSERT_EQ(chown((owned + "/" + name).c_str(), kNobody, kNobody), 0);
        ASSERT_EQ(chmod((owned + "/" + name).c_str(), 0000), 0);
    }
    std::string closed = dir / "closed";
    writeFile(closed + "/items.json", "[]");
    ASSERT_EQ(chmod(closed.c_str(), 0000), 0);

    const std::pair<const char*, std::function<void()>> loads[] = {
        {"index load", [&] { ItemIndex(owned + "/items.json").load(); }},
        {"journal", [&] { OperationJournal(owned + "/operations.json").loadReportingDamage(); }},
        {"closed folder", [&] { ItemIndex(closed + "/items.json").loadReportingDamage(); }},
    };
    for (const auto& [what, load] : loads)
        EXPECT_EQ(outcomeWithin([&] { return load(), std::string("loaded"); }, true),
                  "system_error EACCES")
            << what;
    EXPECT_EQ(listing(owned), (std::vector<std::string>{"items.json", "operations.json"}));
    EXPECT_EQ(readFile(owned + "/items.json"), readFile(kData + "/items.json"));
    ASSERT_EQ(chmod(closed.c_str(), 0755), 0);
    EXPECT_EQ(listing(closed), std::vector<std::string>{"items.json"});
}

// The writers make their modes without changing the umask, which every thread shares.
TEST(JSONCodec, WritersMakeTheirModesWithoutTouchingTheUmask) {
    mode_t saved = umask(0);
    for (mode_t mask : {mode_t(0), mode_t(022), mode_t(0277)}) {
        umask(mask);
        TempDir dir;
        // Writable under every mask, as the desktop's own folders are.
        ASSERT_EQ(mkdir((dir / "shared").c_str(), 0700), 0);
        ASSERT_EQ(chmod((dir / "shared").c_str(), 0700), 0);
        umaskCalls = 0;
        JSONCodec::writePrivately("[]", dir / "a/b/c/items.json");
        JSONCodec::writeAtomically("{}", dir / "shared/state.json");
        JSONCodec::writeAtomically("{}", dir / "shared/state.json");
        JSONCodec::writeAtomically("<xbel/>", dir / "shared/recents.xbel", 0604);
        EXPECT_EQ(umaskCalls, 0) << "the umask changed, for every thread";
        for (const char* folder : {"a", "a/b", "a/b/c"})
            EXPECT_EQ(permissions(dir / folder), 0700u)
                << folder << " with umask " << std::oct << mask;
        EXPECT_EQ(permissions(dir / "a/b/c/items.json"), 0600u) << "umask " << std::oct << mask;
        EXPECT_EQ(permissions(dir / "shared/state.json"), 0666u & ~mask)
            << "umask " << std::oct << mask;
        EXPECT_EQ(permissions(dir / "shared/recents.xbel"), 0604u) << "umask " << std::oct << mask;
        EXPECT_EQ(listing(dir / "shared"),
                  (std::vector<std::string>{"recents.xbel", "state.json"}));
    }
    umask(saved);

    TempDir dir;
    ASSERT_EQ(mkdir((dir / "shared").c_str(), 0751), 0);
    ASSERT_EQ(chmod((dir / "shared").c_str(), 0751), 0);
    writeFile(dir / "shared/items.json", "old");
    ASSERT_EQ(chmod((dir / "shared/items.json").c_str(), 0644), 0);
    JSONCodec::writePrivately("first", dir / "shared/items.json");
    JSONCodec::writePrivately("second", dir / "shared/items.json");
    EXPECT_EQ(permissions(dir / "shared"), 0751u);
    EXPECT_EQ(permissions(dir / "shared/items.json"), 0600u);
    EXPECT_EQ(readFile(dir / "shared/items.json"), "second");
    EXPECT_EQ(listing(dir / "shared"), std::vector<std::string>{"items.json"});
}

TEST(ItemIndex, UpsertReplacesKnownIdsInPlaceAndOnlyTheFirstRecordHoldsAnId) {
    TempDir dir;
    ItemIndex index(dir / "support/items.json");
    auto a = itemNamed("a", "/a"), b = itemNamed("b", "/b"), c = itemNamed("c", "/c");
    for (const auto& item : {a, b, c}) index.upsert(item);
    EXPECT_EQ(index.load(), (std::vector<LockedItem>{a, b, c}));
    b.displayName = "b renamed";
    b.stage = LockedItem::Stage::originalPending;
    index.upsert(b);
    EXPECT_EQ(index.load(), (std::vector<LockedItem>{a, b, c}));
    EXPECT_EQ(permissions(dir / "support/items.json"), 0600u);

    // Another item's record under a's id: kept aside with the whole file, never matched.
    auto twin = itemNamed("twin", "/twin");
    twin.id = a.id;
    index.save({a, twin, b, twin});
    const std::string written = readFile(index.fileURL());
    auto loaded = index.loadReportingDamage();
    EXPECT_TRUE(loaded.damaged);
    EXPECT_EQ(loaded.items, (std::vector<LockedItem>{a, b}));
    auto names = listing(dir / "support");
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(readFile(dir / ("support/" + names[1])), written) << names[1];
    EXPECT_TRUE(names[1].starts_with("items.json.damaged-")) << names[1];
    EXPECT_FALSE(index.loadReportingDamage().damaged) << "set aside a second time";
    index.remove(a.id);
    EXPECT_EQ(index.load(), std::vector<LockedItem>{b});
    ItemIndex absent(dir / "absent/items.json");
    absent.remove(b.id);
    EXPECT_EQ(readFile(absent.fileURL()), "[]");
}

TEST(ItemIndex, ItemIsFoundThroughLinksAndDotDot) {
    TempDir dir;
    writeFile(dir / "docs/report.pdf", "secret");
    ItemIndex index(dir / "items.json");
    auto item = ItemIndex::refreshed(itemNamed("report.pdf", ""), dir / "docs/report.pdf");
    index.upsert(itemNamed("other", dir / "docs"));
    index.upsert(item);
    ASSERT_EQ(symlink((dir / "docs/report.pdf").c_str(), (dir / "link.pdf").c_str()), 0);
    ASSERT_EQ(symlink("docs", (dir / "alias").c_str()), 0);

    for (const std::string& asked :
         {dir / "docs/report.pdf", dir / "link.pdf", dir / "alias/report.pdf",
          dir / "docs/../docs/./report.pdf", dir / "alias/../docs//report.pdf",
          dir / "alias/report.pdf/"}) {
        auto found = index.item(asked);
        ASSERT_TRUE(found.has_value()) << asked;
        EXPECT_EQ(found->id, item.id) << asked;
    }
    EXPECT_FALSE(index.item(dir / "docs/missing.pdf"));
    EXPECT_FALSE(index.item(dir.path()));
}

TEST(ItemIndex, LocateUsesTheLocatorThenTheLastKnownPath) {
    TempDir dir;
    writeFile(dir / "docs/report.pdf", "secret");
    writeFile(dir / "docs/notes.txt", "notes");
    auto item = ItemIndex::refreshed(itemNamed("report.pdf", "/nowhere"), dir / "docs/report.pdf");
    EXPECT_EQ(item.lastKnownPath, dir / "docs/report.pdf");
    ASSERT_TRUE(item.bookmark.has_value());
    EXPECT_FALSE(item.bookmark->empty());
    ItemIndex index(dir / "items.json");
    index.upsert(item);

    // Renamed in its folder, and another file took the old name: the locator still wins.
    ASSERT_EQ(rename((dir / "docs/report.pdf").c_str(), (dir / "docs/report (1).pdf").c_str()), 0);
    writeFile(dir / "docs/report.pdf", "impostor");
    EXPECT_EQ(ItemIndex::locate(index.load().at(0)), dir / "docs/report (1).pdf");
    EXPECT_EQ(index.item(dir / "docs/report (1).pdf").value().id, item.id);

    // Moved to another folder, the locator finds nothing and the last known path is all there is.
    auto pointingElsewhere = index.load().at(0);
    pointingElsewhere.lastKnownPath = dir / "docs/notes.txt";
    ASSERT_EQ(rename((dir / "docs/report (1).pdf").c_str(), (dir / "moved.pdf").c_str()), 0);
    EXPECT_EQ(ItemIndex::locate(pointingElsewhere), dir / "docs/notes.txt");
    ASSERT_EQ(unlink((dir / "docs/notes.txt").c_str()), 0);
    EXPECT_EQ(ItemIndex::locate(pointingElsewhere), std::nullopt);
}

TEST(OperationJournal, AddKeepsOneEntryPerIdAndPutsItLast) {
    TempDir dir;
    OperationJournal journal(dir / "operations.json");
    auto a = entryFor("/home/ana/a"), b = entryFor("/home/ana/b");
    journal.add(a);
    journal.add(b);
    a.kind = JournalEntry::Kind::restore;
    a.lockedIdentity = FileIdentity{42, 0, 0};
    journal.add(a);
    EXPECT_EQ(journal.load(), (std::vector<JournalEntry>{b, a}));
    journal.remove(b.id);
    EXPECT_EQ(journal.load(), std::vector<JournalEntry>{a});
    journal.remove(b.id);
    EXPECT_EQ(journal.load(), std::vector<JournalEntry>{a});
    EXPECT_EQ(permissions(journal.fileURL()), 0600u);

    auto bare = entryFor("/x");
    journal.remove(a.id);
    journal.add(bare);
    auto written = nlohmann::json::parse(readFile(journal.fileURL()));
    for (const char* key : {"lockedIdentity", "lockedAt", "deletingPath", "originalFacts"})
        EXPECT_FALSE(written[0].contains(key)) << key;
    EXPECT_EQ(journal.load(), std::vector<JournalEntry>{bare});
}

TEST(JSONCodec, ReadersOpenOnlyRegularFilesUpToTheirLimit) {
    const std::size_t smallLimit = 64 << 10, engineLimit = 64 << 20;
    // The small records swallow every failure: each gives its name, or "nothing".
    const struct {
        std::string file, valid;
        std::function<std::string(const std::string& folder)> read;
    } small[] = {
        {".corvane-item.json", R"({"formatVersion":1,"kind":"folder","name":"Photos"})",
         [](auto& folder) {
             auto read = ItemMarker::read(folder);
             return read ? read->name : "nothing";
         }},
        {"state.json", R"({"unlockedPaths":["Photos"],"bootTime":1})",
         [](auto& folder) {
             auto read = SharedState::read(folder + "/state.json");
             return read ? read->unlockedPaths.at(0) : "nothing";
         }},
    };
    // Only the last is read; everything else is nothing to a small record and damage to the index.
    const std::pair<const char*, std::function<void(const std::string& path,
                                                    const std::string& valid, std::size_t limit)>>
        cases[] = {
            {"FIFO", [](auto& path, auto&, auto) { mkfifo(path.c_str(), 0644); }},
            {"link to /dev/zero",
             [](auto& path, auto&, auto) { symlink("/dev/zero", path.c_str()); }},
            {"link to a valid record",
             [](auto& path, auto& valid, auto) {
                 writeFile(path + ".target", valid);
                 symlink((path + ".target").c_str(), path.c_str());
             }},
            {"directory", [](auto& path, auto&, auto) { mkdir(path.c_str(), 0755); }},
            {"one byte over the limit",
             [](auto& path, auto& valid, auto limit) {
                 writeFile(path, padded(valid, limit + 1));
             }},
            {"small records at their limit, index within",
             [&](auto& path, auto& valid, auto limit) {
                 writeFile(path, limit == smallLimit ? padded(valid, limit) : valid);
             }},
        };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [what, make] = cases[i];
        const bool read = i + 1 == std::size(cases);
        TempDir dir;
        for (const auto& record : small) {
            make(dir / record.file, record.valid, smallLimit);
            EXPECT_EQ(outcomeWithin([&] { return record.read(dir.path()); }),
                      read ? "returned Photos" : "returned nothing")
                << record.file << ": " << what;
        }
        std::string folder = dir / "support";
        ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
        make(folder + "/items.json", readFile(kData + "/items.json"), engineLimit);
        // Whatever was there is kept as it was, by a rename: the same inode, type and size.
        struct stat made {};
        lstat((folder + "/items.json").c_str(), &made);
        EXPECT_EQ(outcomeWithin([&] {
                      auto loaded = ItemIndex(folder + "/items.json").loadReportingDamage();
                      if (!loaded.damaged) return std::to_string(loaded.items.size()) + " records";
                      std::string kept;
                      for (const auto& name : listing(folder))
                          if (name.starts_with("items.json.damaged-")) kept = folder + "/" + name;
                      struct stat after {};
                      bool intact = !kept.empty() && lstat(kept.c_str(), &after) == 0 &&
                                    after.st_ino == made.st_ino && after.st_mode == made.st_mode &&
                                    after.st_size == made.st_size;
                      return std::string("damaged, set aside") + (intact ? " intact" : " badly");
                  }),
                  read ? "returned 2 records" : "returned damaged, set aside intact")
            << "index: " << what;
    }
}

TEST(ItemMarker, WriteNeitherFollowsALinkNorWaitsOnAFIFO) {
    TempDir dir;
    writeFile(dir / "outside", "untouched");
    ASSERT_EQ(mkdir((dir / "linked").c_str(), 0755), 0);
    ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "linked/.corvane-item.json").c_str()), 0);
    ASSERT_EQ(mkdir((dir / "piped").c_str(), 0755), 0);
    ASSERT_EQ(mkfifo((dir / "piped/.corvane-item.json").c_str(), 0644), 0);
    ItemMarker marker(LockedItem::Kind::file, "a");
    auto write = [&](const std::string& volume) {
        return outcomeWithin([&] {
            marker.write(volume);
            return std::string("written");
        });
    };
    EXPECT_EQ(write(dir / "linked"), "system_error ELOOP");
    EXPECT_EQ(readFile(dir / "outside"), "untouched");
    EXPECT_EQ(write(dir / "piped"), "system_error ENXIO");
}

}  // namespace
}  // namespace corvane
