// The locking engine when things go wrong, on real files, real gocryptfs images, real processes
// and real small disks: refusals change nothing, failures before the locked item is visible are
// undone completely, crashes leave the state recovery reads, and later failures keep both copies.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "Engine/Locker.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/ItemFacts.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "LockerFixture.h"
#include "Records/CorvaneError.h"
#include "Records/Paths.h"
#include "Records/SupportLock.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::BackgroundProcess;
using testing::errorFrom;
using testing::listing;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;
using Names = std::vector<std::string>;

const std::string kPassword = "locker failure password";

// The paths whose entry differs between two snapshots, so that a failure names them.
Names changedPaths(Locker::Snapshot before, const Locker::Snapshot& after) {
    Names changed;
    for (const auto& [path, metadata] : after)
        if (auto old = before.extract(path); old.empty() || !(old.mapped() == metadata))
            changed.push_back(path);
    for (const auto& [path, metadata] : before) changed.push_back(path);
    return changed;
}

// A shell that opens `path` for appending and becomes sleep, so the writer lsof sees is "sleep".
std::unique_ptr<BackgroundProcess> holdForWriting(const std::string& path) {
    auto writer = std::make_unique<BackgroundProcess>(std::vector<std::string>{
        "/bin/sh", "-c", "exec 3>>\"$1\"; exec /bin/sleep 60", "sh", path});
    EXPECT_TRUE(writer->waitUntilHolding(path)) << path;
    return writer;
}

class LockerFailureTest : public testing::LockerFixture {
public:
    void TearDown() override {
        writer.reset();
        held.reset();
        LockerFixture::TearDown();
        for (const auto& path : marked) ProcessRunner::run("/usr/bin/chattr", {"-i", "-a", path});
        for (auto place = mounted.rbegin(); place != mounted.rend(); ++place)
            umount2(place->c_str(), MNT_DETACH);
    }

    // Sets a chattr mark, cleared again at the end; false where the file system has none.
    bool mark(const std::string& path, const std::string& flag) {
        if (ProcessRunner::run("/usr/bin/chattr", {flag, path}).status != 0) return false;
        marked.push_back(path);
        return true;
    }

    // Puts a fresh tmpfs of `size` at `place` (the home folder by default); false when mounting
    // is not allowed.
    bool mountSmallDisk(const std::string& size, std::string place = "") {
        if (place.empty()) place = home;
        std::filesystem::create_directories(place);
        if (mount("tmpfs", place.c_str(), "tmpfs", 0, ("size=" + size).c_str()) != 0) return false;
        mounted.push_back(place);
        return true;
    }

    // What a failure that is undone must leave behind: the folder as it was, nothing attached,
    // no mount point, no journal entry and the records as they were.
    void expectNothingLeft(const Locker& locker, const Names& homeNames,
                           const std::vector<LockedItem>& records = {}) {
        EXPECT_EQ(listing(home), homeNames);
        EXPECT_TRUE(ourMounts().empty());
        EXPECT_TRUE(!std::filesystem::exists(locker.mountsRoot) ||
                    std::filesystem::is_empty(locker.mountsRoot));
        EXPECT_TRUE(locker.journal.load().empty());
        EXPECT_EQ(locker.index.load(), records);
    }

    std::unique_ptr<BackgroundProcess> writer;
    std::unique_ptr<SupportLock> held;
    std::vector<std::string> marked;
    std::vector<std::string> mounted;
};

std::string repeated(const std::string& text, int times) {
    std::string joined;
    for (int i = 0; i < times; ++i) joined += text;
    return joined;
}

// Refusals: each row arranges an item that must not be locked.

struct Refusal {
    std::string path;
    CorvaneError expected;
    std::string message = "";
};

struct RefusalCase {
    const char* name;
    // Nothing when this system cannot arrange the case.
    std::function<std::optional<Refusal>(LockerFailureTest&, Locker&)> arrange;
};

class LockerFailureRefusalTest : public LockerFailureTest,
                                 public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(LockerFailureRefusalTest, ChangesNothingOnDisk) {
    Locker locker = makeLocker();
    std::optional<Refusal> refusal = GetParam().arrange(*this, locker);
    if (!refusal) GTEST_SKIP() << "cannot be arranged here";
    Locker::Snapshot before = Locker::metadataSnapshot(root.path());

    auto error = errorFrom([&] { locker.lock(refusal->path, kPassword, 1); });
    ASSERT_TRUE(error);
    EXPECT_TRUE(*error == refusal->expected)
        << error->errorDescription() << " instead of " << refusal->expected.errorDescription();
    if (!refusal->message.empty()) {
        EXPECT_EQ(error->errorDescription(), refusal->message);
    }
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(root.path())), Names{});
}

using F = LockerFailureTest;
using Arranged = std::optional<Refusal>;

const RefusalCase kRefusals[] = {
    {"Symlink",
     [](F& f, Locker&) -> Arranged {
         symlink("Taxes", (f.home + "/Shortcut").c_str());
         return Refusal{f.home + "/Shortcut", CorvaneError::refused(LockRefusal::shortcut)};
     }},
    {"SymlinkWithTrailingSlash",
     [](F& f, Locker&) -> Arranged {
         symlink("Taxes", (f.home + "/Shortcut").c_str());
         return Refusal{f.home + "/Shortcut/", CorvaneError::refused(LockRefusal::shortcut)};
     }},
    {"NameNotText",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/R\xe9sum\xe9/a.txt", "a");
         return Refusal{f.home + "/R\xe9sum\xe9", CorvaneError::refused(LockRefusal::nameNotText)};
     }},
    {"MarkerNameAtTop",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Taxes/.corvane-item.json", "{}");
         return Refusal{f.home + "/Taxes", CorvaneError::refused(LockRefusal::holdsReservedName),
                        "This folder holds a file named .corvane-item.json or "
                        ".metadata_never_index at its top, names Corvane keeps for itself. Rename "
                        "or move that file, then try again."};
     }},
    {"NeverIndexNameAtTop",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Taxes/.metadata_never_index", "");
         return Refusal{f.home + "/Taxes", CorvaneError::refused(LockRefusal::holdsReservedName)};
     }},
    {"BindMountInside",
     [](F& f, Locker&) -> Arranged {
         f.makeSample(f.home + "/Elsewhere");
         if (!f.bindMount(f.home + "/Elsewhere", f.home + "/Taxes/2024/bound")) return std::nullopt;
         return Refusal{f.home + "/Taxes", CorvaneError::containsMountedDisk("Taxes")};
     }},
    {"TmpfsDeepInside",
     [](F& f, Locker&) -> Arranged {
         if (!f.mountSmallDisk("1m", f.home + "/Taxes/2024/deep/scratch")) return std::nullopt;
         return Refusal{f.home + "/Taxes", CorvaneError::containsMountedDisk("Taxes")};
     }},
    {"AppleDoubleName",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/._Taxes/a.txt", "a");
         return Refusal{f.home + "/._Taxes", CorvaneError::containsAppleDouble("._Taxes")};
     }},
    {"AppleDoubleDeepInside",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Taxes/2024/deep/._x", "x");
         return Refusal{f.home + "/Taxes", CorvaneError::containsAppleDouble("Taxes")};
     }},
    {"ImmutableFile",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Report.pdf", "report");
         if (!f.mark(f.home + "/Report.pdf", "+i")) return std::nullopt;
         return Refusal{f.home + "/Report.pdf", CorvaneError::finderLocked("Report.pdf"),
                        "Report.pdf is marked immutable or append-only. Clear the mark (chattr "
                        "-i -a), then try again."};
     }},
    {"AppendOnlyFileInside",
     [](F& f, Locker&) -> Arranged {
         if (!f.mark(f.home + "/Taxes/2024/deep/empty.txt", "+a")) return std::nullopt;
         return Refusal{f.home + "/Taxes", CorvaneError::containsFinderLocked("Taxes")};
     }},
    {"HardLinkedFile",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Report.pdf", "report");
         link((f.home + "/Report.pdf").c_str(), (f.home + "/Report copy.pdf").c_str());
         return Refusal{f.home + "/Report.pdf", CorvaneError::hardLinked("Report.pdf")};
     }},
    {"CloudPlaceholderInside",
     [](F& f, Locker& locker) -> Arranged {
         writeFile(f.home + "/Taxes/2024/.scan 2.pdf.icloud", "");
         locker.cloudDownloadTimeout = 0.2;
         return Refusal{f.home + "/Taxes", CorvaneError::stillInICloud("Taxes")};
     }},
    {"FileOpenForWriting",
     [](F& f, Locker&) -> Arranged {
         f.writer = holdForWriting(f.home + "/Taxes/notes 日本.txt");
         return Refusal{f.home + "/Taxes", CorvaneError::inUse({"sleep"})};
     }},
    {"NotEnoughSpace",
     [](F& f, Locker& locker) -> Arranged {
         const std::string item = f.home + "/Taxes";
         if (!f.mountSmallDisk("4m")) return std::nullopt;
         f.makeSample(item);
         return Refusal{
             item, CorvaneError::notEnoughSpace(locker.spaceMargin + ItemFacts::allocatedSize(item),
                                                Locker::availableSpace(f.home).value())};
     }},
    {"HoldsTheSupportFolder",
     [](F& f, Locker& locker) -> Arranged {
         f.makeSample(f.home + "/Synced");
         locker = Locker(f.home + "/Synced/corvane", f.home, std::nullopt,
                         std::make_shared<GocryptfsTool>());
         f.held = SupportLock::acquire(f.home + "/Synced/corvane");
         return Refusal{f.home + "/Synced", CorvaneError::refused(LockRefusal::corvaneRecords),
                        "This is or holds Corvane's own records, so Corvane cannot lock it."};
     }},
    {"OpenLockedItemInside",
     [](F& f, Locker& locker) -> Arranged {
         locker.unlock(locker.lock(f.home + "/Taxes/2024", kPassword, 1).lastKnownPath, kPassword);
         return Refusal{f.home + "/Taxes", CorvaneError::containsUnlockedItem("Taxes")};
     }},
};

INSTANTIATE_TEST_SUITE_P(, LockerFailureRefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

// What the user typed or pointed at is refused before anything is read or written: a password
// that cannot reach the image tool whole, and a link posing as a locked item.
TEST_F(LockerFailureTest, UnusablePasswordsAndLinksAreRefusedBeforeAnyWork) {
    Locker locker = makeLocker();
    LockedItem item = locker.lock(home + "/Taxes", kPassword, 1);
    makeSample(home + "/Other");
    symlink("Taxes.corvlock", (home + "/Shortcut.corvlock").c_str());
    const Locker::Snapshot before = Locker::metadataSnapshot(root.path());

    const std::string link = home + "/Shortcut.corvlock", lineBreak = "two\nlines";
    const std::pair<std::string, std::string> passwords[] = {
        {"", "The password is empty."},
        {lineBreak, "A password cannot contain a line break."},
        {"ends\r", "A password cannot contain a line break."},
        {std::string(2049, 'x'), "A password can be at most 2048 bytes long."},
    };
    using Operation = std::function<void(const std::string&)>;
    const std::pair<const char*, Operation> operations[] = {
        {"lock", [&](const std::string& bad) { locker.lock(home + "/Other", bad, 1); }},
        {"unlock", [&](const std::string& bad) { locker.unlock(item.lastKnownPath, bad); }},
        {"removeLock", [&](const std::string& bad) { locker.removeLock(item.lastKnownPath, bad); }},
        {"changePassword from",
         [&](const std::string& bad) { locker.changePassword(bad, "new password", 2); }},
        {"changePassword to",
         [&](const std::string& bad) { locker.changePassword(kPassword, bad, 2); }},
    };
    for (const auto& [operation, run] : operations) {
        for (const auto& [password, sentence] : passwords) {
            try {
                run(password);
                ADD_FAILURE() << operation << " took a password that is wrong: " << sentence;
            } catch (const std::invalid_argument& error) {
                EXPECT_EQ(error.what(), sentence) << operation;
            } catch (const std::exception& error) {
                ADD_FAILURE() << operation << " failed late: " << error.what();
            }
        }
    }
    const std::pair<const char*, Operation> throughLinks[] = {
        {"unlock", [&](const std::string& path) { locker.unlock(path, kPassword); }},
        {"removeLock", [&](const std::string& path) { locker.removeLock(path, kPassword); }},
    };
    for (const auto& [operation, run] : throughLinks)
        for (const std::string& path : {link, link + "/"})
            EXPECT_EQ(errorFrom([&] { run(path); }), CorvaneError::refused(LockRefusal::shortcut))
                << operation << " " << path;
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(root.path())), Names{});
}

TEST_F(LockerFailureTest, TakenLockedNameGetsTheNextNumber) {
    Locker locker = makeLocker();
    std::filesystem::create_directory(home + "/Taxes.corvlock");
    ASSERT_GT(std::filesystem::hard_link_count(home + "/Taxes"), 1u)
        << "a folder's own link count must not count as a hard link";

    EXPECT_EQ(locker.lock(home + "/Taxes", kPassword, 1).lastKnownPath, home + "/Taxes 2.corvlock");
    makeSample(home + "/Taxes");
    EXPECT_EQ(locker.lock(home + "/Taxes", kPassword, 1).lastKnownPath, home + "/Taxes 3.corvlock");
    EXPECT_EQ(listing(home), (Names{"Taxes 2.corvlock", "Taxes 3.corvlock", "Taxes.corvlock"}));
    EXPECT_TRUE(std::filesystem::is_empty(home + "/Taxes.corvlock"));
}

// Failures before the locked item is visible: everything is undone, the original stays as it is.

TEST_F(LockerFailureTest, ItemChangedWhileLockingIsNotLocked) {
    Locker locker = makeLocker();
    const std::string notes = home + "/Taxes/notes 日本.txt";
    locker.afterVerify = [&] { std::ofstream(notes, std::ios::app) << " and more"; };

    auto error = errorFrom([&] { locker.lock(home + "/Taxes", kPassword, 1); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorCase(), CorvaneError::Case::changedWhileLocking);
    expectNothingLeft(locker, {"Taxes"});
    EXPECT_EQ(readFile(notes), "notes and more");
}

TEST_F(LockerFailureTest, CancelDuringTheCopyUndoesEverything) {
    {
        // Large enough that the copy into the image is still running when the cancel lands.
        std::ofstream big(home + "/Taxes/big.bin", std::ios::binary);
        const std::string chunk(1 << 20, 'z');
        for (int megabyte = 0; megabyte < 150; ++megabyte) big << chunk;
    }
    Locker locker = makeLocker();
    const Locker::Snapshot before = Locker::metadataSnapshot(home + "/Taxes");
    CancelToken cancel;
    std::jthread watcher;
    std::vector<LockStep> steps;
    auto progress = [&](LockStep step) {
        steps.push_back(step);
        if (step != LockStep::encrypting) return;
        // Cancels as soon as the big file shows up inside the attached image.
        watcher = std::jthread([&](std::stop_token stop) {
            while (!stop.stop_requested() && !cancel.isCancelled()) {
                std::error_code ignored;
                for (const auto& mount :
                     std::filesystem::directory_iterator(locker.mountsRoot, ignored))
                    if (std::filesystem::exists(mount.path() / "big.bin")) cancel.cancel();
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    };

    auto error = errorFrom([&] { locker.lock(home + "/Taxes", kPassword, 1, &cancel, progress); });
    watcher = {};
    ASSERT_TRUE(error) << "the lock finished before the copy was seen running";
    EXPECT_EQ(error->errorCase(), CorvaneError::Case::cancelled);
    EXPECT_EQ(steps, (std::vector<LockStep>{LockStep::preparing, LockStep::encrypting}))
        << "the copy ran to its end although cancelled";
    expectNothingLeft(locker, {"Taxes"});
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(home + "/Taxes")), Names{});
}

TEST_F(LockerFailureTest, CopyThatFillsTheDiskUndoesEverything) {
    if (!mountSmallDisk("64m")) GTEST_SKIP() << "mounting a small disk needs root";
    // Half the free space passes the space check (its margin off) beside the original, but the
    // encrypted copy is a little larger than its plain contents and no longer fits.
    const std::int64_t emptyDisk = Locker::availableSpace(home).value();
    writeFile(home + "/Big/data.bin", std::string(emptyDisk / 2 / 4096 * 4096, 'd'));
    Locker locker = makeLocker();
    locker.spaceMargin = 0;
    const Locker::Snapshot before = Locker::metadataSnapshot(home + "/Big");
    const auto freeBefore = Locker::availableSpace(home);

    auto error = errorFrom([&] { locker.lock(home + "/Big", kPassword, 1); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorCase(), CorvaneError::Case::copyFailed) << error->errorDescription();
    EXPECT_NE(error->errorDescription().find("No space left on device"), std::string::npos)
        << error->errorDescription();
    expectNothingLeft(locker, {"Big"});
    EXPECT_EQ(Locker::availableSpace(home), freeBefore) << "the partial image kept its space";
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(home + "/Big")), Names{});
}

// Interruptions after the journal's first write: a crash point, or a failure once the locked item
// is visible. Nothing is undone; each leaves exactly the state recovery reads.

enum class Cause { crash, flush, indexFile, deletion };
enum class Index { none, pending, unreadable };
enum class Original { here, deleting, gone };

struct Interruption {
    Cause cause;
    std::optional<CrashPoint> point;
    bool stamped;   // the journal entry carries lockedIdentity and lockedAt
    bool moved;     // the image has its final ".corvlock" name
    bool attached;  // the image is still attached read-write
    Index index;
    Original original;
};

class LockerFailureInterruptedTest : public LockerFailureTest,
                                     public ::testing::WithParamInterface<Interruption> {};

TEST_P(LockerFailureInterruptedTest, LeavesTheStateRecoveryReads) {
    const Interruption& row = GetParam();
    Locker locker = makeLocker();
    locker.crashPoint = row.point;
    auto fail = [](auto&&...) { throw std::runtime_error("the disk went away"); };
    if (row.cause == Cause::flush) locker.flushVolume = fail;
    if (row.cause == Cause::indexFile) std::filesystem::create_directories(support + "/items.json");
    if (row.cause == Cause::deletion) locker.deleteRenamedOriginal = fail;

    if (row.cause == Cause::crash) {
        EXPECT_THROW(locker.lock(home + "/Taxes", kPassword, 1), SimulatedCrash);
    } else {
        auto error = errorFrom([&] { locker.lock(home + "/Taxes", kPassword, 1); });
        ASSERT_TRUE(error);
        EXPECT_TRUE(*error == (row.cause == Cause::deletion
                                   ? CorvaneError::lockedButRemovalUnfinished("Taxes")
                                   : CorvaneError::lockedButOriginalRemains("Taxes")))
            << error->errorDescription();
    }

    auto entries = locker.journal.load();
    ASSERT_EQ(entries.size(), 1u);
    const JournalEntry& entry = entries.front();
    const std::string hidden = home + "/.corvane-" + entry.id.string();
    const std::string partial = hidden + ".partial.sparsebundle";
    const std::string image = row.moved ? home + "/Taxes.corvlock" : partial;
    std::optional<std::string> deleting;
    if (row.original != Original::here) deleting = hidden + ".deleting";
    EXPECT_EQ(entry.kind, JournalEntry::Kind::lock);
    EXPECT_EQ(
        std::tuple(entry.originalPath, entry.partialPath, entry.finalPath, entry.deletingPath),
        std::tuple(home + "/Taxes", partial, home + "/Taxes.corvlock", deleting));
    EXPECT_EQ(entry.lockedAt.has_value(), row.stamped);
    EXPECT_EQ(entry.lockedIdentity, row.stamped ? FileIdentity::of(image) : std::nullopt);

    const std::string original = deleting.value_or(home + "/Taxes");
    Names names{lastPathComponent(image)};
    if (row.original != Original::gone) names.push_back(lastPathComponent(original));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(listing(home), names);
    if (row.original != Original::gone) {
        EXPECT_TRUE(sameAsPristine(original));
    }

    auto mounts = ourMounts();
    const std::string mountPoint = locker.mountsRoot + "/" + entry.id.string();
    if (row.attached) {
        ASSERT_EQ(mounts, (std::vector<AttachedImage>{{partial, mountPoint}}));
        struct statvfs volume {};
        ASSERT_EQ(statvfs(mountPoint.c_str(), &volume), 0);
        EXPECT_FALSE(volume.f_flag & ST_RDONLY);
        EXPECT_TRUE(std::filesystem::exists(mountPoint + "/.corvane-item.json"));
    } else {
        EXPECT_TRUE(mounts.empty());
        EXPECT_FALSE(std::filesystem::exists(mountPoint));
    }

    if (row.index != Index::unreadable) {
        auto items = locker.index.load();
        EXPECT_EQ(items.size(), row.index == Index::pending ? 1u : 0u);
        for (const auto& item : items)
            EXPECT_TRUE(item.id == entry.id && item.stage == LockedItem::Stage::originalPending &&
                        item.originalPath == home + "/Taxes");
    }
}

using P = CrashPoint;

// cause, crash point, stamped, moved, attached, index, original
const Interruption kInterruptions[] = {
    {Cause::crash, P::lockAfterCreate, 0, 0, 0, Index::none, Original::here},
    {Cause::crash, P::lockAfterCopy, 0, 0, 1, Index::none, Original::here},
    {Cause::crash, P::lockAfterVerify, 0, 0, 0, Index::none, Original::here},
    {Cause::crash, P::lockBeforeRename, 1, 0, 0, Index::none, Original::here},
    {Cause::crash, P::lockAfterMove, 1, 1, 0, Index::none, Original::here},
    {Cause::crash, P::lockAfterRename, 1, 1, 0, Index::pending, Original::here},
    {Cause::crash, P::lockAfterRenameToDeleting, 1, 1, 0, Index::pending, Original::deleting},
    {Cause::crash, P::lockAfterDeleteOriginal, 1, 1, 0, Index::pending, Original::gone},
    {Cause::flush, std::nullopt, 1, 1, 0, Index::pending, Original::here},
    {Cause::indexFile, std::nullopt, 1, 1, 0, Index::unreadable, Original::here},
    {Cause::deletion, std::nullopt, 1, 1, 0, Index::pending, Original::deleting},
};

const char* const kCauseNames[] = {"", "FlushFails", "IndexUnwritable", "DeleteFails"};

INSTANTIATE_TEST_SUITE_P(, LockerFailureInterruptedTest, ::testing::ValuesIn(kInterruptions),
                         [](const auto& info) {
                             auto point = info.param.point;
                             return std::string(point ? CrashPoints::rawValue(*point)
                                                      : kCauseNames[int(info.param.cause)]);
                         });

// Removing the lock.

TEST_F(LockerFailureTest, RestoreTakesTheNextFreeName) {
    const std::vector<std::pair<Names, std::string>> table = {
        {{"Taxes"}, "Taxes (restored)"},
        {{"Taxes", "Taxes (restored)"}, "Taxes (restored 2)"},
    };
    Locker locker = makeLocker();
    for (const auto& [taken, expected] : table) {
        SCOPED_TRACE(expected);
        std::filesystem::remove_all(home);
        makeSample(home + "/Taxes");
        LockedItem item = locker.lock(home + "/Taxes", kPassword, 1);
        for (const auto& name : taken) std::filesystem::create_directory(home + "/" + name);

        EXPECT_EQ(locker.removeLock(item.lastKnownPath, kPassword), home + "/" + expected);
        EXPECT_TRUE(sameAsPristine(home + "/" + expected));
        for (const auto& name : taken) EXPECT_TRUE(std::filesystem::is_empty(home + "/" + name));
    }
}

TEST_F(LockerFailureTest, RestoreDestinationKeepsTheExtension) {
    // Names of 255 bytes, the most a name may have: the base gives way, whole characters only.
    const std::string longest = std::string(251, 'a') + ".pdf", accents = "x" + repeated("é", 125),
                      flags = repeated("\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA", 31) + "abc";
    const std::string notText = "\xE9\xFF" + std::string(249, 'b') + ".txt";
    const std::vector<std::tuple<std::string, Names, std::string>> table = {
        {"Report.pdf", {}, "Report.pdf"},
        {"Report.pdf", {"Report.pdf"}, "Report (restored).pdf"},
        {"Report.pdf", {"Report.pdf", "Report (restored).pdf"}, "Report (restored 2).pdf"},
        {"Report.pdf", {"Report.pdf", "Report (restored 2).pdf"}, "Report (restored).pdf"},
        {".env", {".env"}, ".env (restored)"},
        {longest, {}, longest},
        {longest, {longest}, std::string(240, 'a') + " (restored).pdf"},
        {longest,
         {longest, std::string(240, 'a') + " (restored).pdf"},
         std::string(238, 'a') + " (restored 2).pdf"},
        {accents + ".txt", {accents + ".txt"}, "x" + repeated("é", 119) + " (restored).txt"},
        {flags, {flags}, repeated("\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA", 30) + " (restored)"},
        {notText, {notText}, "\xE9\xFF" + std::string(238, 'b') + " (restored).txt"},
        {std::string(300, 'z') + ".pdf", {}, std::string(251, 'z') + ".pdf"},  // a hostile marker
        {"a." + std::string(253, 'e'),
         {"a." + std::string(253, 'e')},
         "a." + std::string(242, 'e') + " (restored)"},
    };
    for (const auto& [name, taken, expected] : table) {
        SCOPED_TRACE(expected);
        std::filesystem::remove_all(home);
        std::filesystem::create_directory(home);
        for (const auto& each : taken) {
            writeFile(home + "/" + each, "taken");
            ASSERT_TRUE(std::filesystem::exists(home + "/" + each));
        }
        EXPECT_EQ(Locker::restoreDestination(name, home), home + "/" + expected);
    }
}

// A failed restore leaves the item locked, its record as it was, and nothing else behind.
class LockerFailureRestoreTest : public LockerFailureTest,
                                 public ::testing::WithParamInterface<bool> {};

TEST_P(LockerFailureRestoreTest, LeavesTheItemLocked) {
    const bool tamper = GetParam();  // else the password is wrong
    Locker locker = makeLocker();
    LockedItem item = locker.lock(home + "/Taxes", kPassword, 1);
    const Locker::Snapshot before = Locker::metadataSnapshot(item.lastKnownPath);
    // The staging copy differs, and read-only folders in it must not keep it from being removed.
    if (tamper)
        locker.afterRestoreCopy = [](const std::string& staging) {
            std::ofstream(staging + "/notes 日本.txt", std::ios::app) << " changed";
            chmod((staging + "/2024/deep").c_str(), 0500);
            chmod((staging + "/2024").c_str(), 0555);
        };

    auto error = errorFrom(
        [&] { locker.removeLock(item.lastKnownPath, tamper ? kPassword : "not the password"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorCase(), tamper ? CorvaneError::Case::restoreVerificationFailed
                                         : CorvaneError::Case::wrongPassword);
    if (tamper) {
        EXPECT_TRUE(error->errorDescription().ends_with("The item is still locked."))
            << error->errorDescription();
    }
    expectNothingLeft(locker, {"Taxes.corvlock"}, {item});
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(item.lastKnownPath)), Names{});

    locker.afterRestoreCopy = nullptr;
    EXPECT_TRUE(sameAsPristine(locker.removeLock(item.lastKnownPath, kPassword)));
}

INSTANTIATE_TEST_SUITE_P(, LockerFailureRestoreTest, ::testing::Bool(), [](const auto& info) {
    return std::string(info.param ? "StagingCopyDiffers" : "WrongPassword");
});

TEST_F(LockerFailureTest, RestoreOfAnOpenItemInUseKeepsItOpenAndLocked) {
    Locker locker = makeLocker();
    LockedItem item = locker.lock(home + "/Taxes", kPassword, 1);
    OpenItem open = locker.unlock(item.lastKnownPath, kPassword);
    writer = holdForWriting(open.contentURL() + "/notes 日本.txt");

    auto error = errorFrom([&] { locker.removeLock(item.lastKnownPath, kPassword); });
    ASSERT_TRUE(error);
    EXPECT_TRUE(*error == CorvaneError::inUse({"sleep"})) << error->errorDescription();
    EXPECT_EQ(locker.openItems(), std::vector<OpenItem>{open});
    EXPECT_EQ(readFile(open.contentURL() + "/notes 日本.txt"), "notes");
    EXPECT_EQ(listing(home), Names{"Taxes.corvlock"});
    EXPECT_EQ(locker.index.load(), std::vector<LockedItem>{item});
    EXPECT_TRUE(locker.journal.load().empty());
}

}  // namespace
}  // namespace corvane
