// The locking engine when things go wrong, on real files, real gocryptfs images, real processes
// and real small disks: refusals change nothing, failures before the locked item is visible are
// undone completely, and a failed restore leaves the item locked. Interruptions after that point
// are in the recovery tests.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <fstream>
#include <memory>
#include <thread>

#include "Engine/Folder.h"
#include "Engine/ItemClaim.h"
#include "Engine/Locker.h"
#include "FileSystem/ItemFacts.h"
#include "LockerFixture.h"
#include "Records/SupportLock.h"

namespace corvane {
namespace {

using testing::BackgroundProcess;
using testing::errorFrom;
using testing::listing;
using testing::readFile;
using testing::writeFile;
using Names = std::vector<std::string>;
using Steps = std::vector<LockStep>;

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

// Refusals: each row arranges items that must not be locked.

struct Refused {
    std::string path;
    CorvaneError expected;
    std::string message = "";  // the exact sentence, where a row pins it
};
using F = LockerFailureTest;
using Arranged = std::optional<std::vector<Refused>>;  // nothing where this system cannot

struct RefusalCase {
    const char* name;
    std::function<Arranged(F&, Locker&)> arrange;
};

class LockerFailureRefusalTest : public F, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(LockerFailureRefusalTest, ChangesNothingOnDisk) {
    Locker locker = makeLocker();
    Arranged refusals = GetParam().arrange(*this, locker);
    if (!refusals) GTEST_SKIP() << "cannot be arranged here";
    Locker::Snapshot before = Locker::metadataSnapshot(root.path());
    for (const auto& [path, expected, message] : *refusals) {
        auto error = errorFrom([&] { locker.lock(path, kPassword, 1); });
        ASSERT_TRUE(error) << path;
        EXPECT_TRUE(*error == expected) << path << ": " << error->errorDescription()
                                        << " instead of " << expected.errorDescription();
        if (!message.empty()) {
            EXPECT_EQ(error->errorDescription(), message);
        }
    }
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(root.path())), Names{});
}

const RefusalCase kRefusals[] = {
    {"Symlink",
     [](F& f, Locker&) -> Arranged {
         symlink("Taxes", (f.home + "/Shortcut").c_str());
         auto shortcut = CorvaneError::refused(LockRefusal::shortcut);
         return {{{f.home + "/Shortcut", shortcut}, {f.home + "/Shortcut/", shortcut}}};
     }},
    {"NameNotText",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/R\xe9sum\xe9/a.txt", "a");
         return {{{f.home + "/R\xe9sum\xe9", CorvaneError::refused(LockRefusal::nameNotText)}}};
     }},
    {"ReservedNameAtTop",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Taxes/.corvane-item.json", "{}");
         writeFile(f.home + "/Other/.metadata_never_index", "");
         auto reserved = CorvaneError::refused(LockRefusal::holdsReservedName);
         return {{{f.home + "/Taxes", reserved,
                   "This folder holds a file named .corvane-item.json or .metadata_never_index at "
                   "its top, names Corvane keeps for itself. Rename or move that file, then try "
                   "again."},
                  {f.home + "/Other", reserved}}};
     }},
    {"WhatTheOwnerCannotReadOrWrite",
     [](F& f, Locker&) -> Arranged {
         f.makeSample(f.home + "/Shared/Taxes");
         chmod((f.home + "/Shared").c_str(), 0555);
         if (access((f.home + "/Shared").c_str(), W_OK) == 0) return std::nullopt;  // privileged
         writeFile(f.home + "/Closed.txt", "closed");
         chmod((f.home + "/Closed.txt").c_str(), 0);
         f.makeSample(f.home + "/Taxes");
         chmod((f.home + "/Taxes/2024/deep/empty.txt").c_str(), 0);
         f.makeSample(f.home + "/Other");
         chmod((f.home + "/Other/2024").c_str(), 0300);
         auto unreadable = CorvaneError::refused(LockRefusal::holdsUnreadable);
         return {{{f.home + "/Shared/Taxes", CorvaneError::refused(LockRefusal::folderNotWritable),
                   "Corvane cannot write in the folder that holds this item; move the item to a "
                   "folder you can change, then try again."},
                  {f.home + "/Closed.txt", unreadable},
                  {f.home + "/Taxes", unreadable,
                   "Corvane cannot read some of the files or folders in this item; give yourself "
                   "permission to read them, then try again."},
                  {f.home + "/Other", unreadable}}};
     }},
    {"NestedTooDeeply",
     [](F& f, Locker&) -> Arranged {
         // Built one level at a time from a descriptor: the whole path is past what a path may be.
         std::vector<std::string> levels{"Deep", "2024"};
         levels.resize(2 + PATH_MAX / 250, std::string(250, 'd'));
         int at = open(f.home.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
         for (const auto& level : levels) {
             mkdirat(at, level.c_str(), 0755);
             int next = openat(at, level.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
             close(at);
             at = next;
         }
         close(openat(at, "notes.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
         close(at);
         return {{{f.home + "/Deep", CorvaneError::refused(LockRefusal::nestedTooDeeply)}}};
     }},
    {"MountInside",
     [](F& f, Locker&) -> Arranged {
         f.makeSample(f.home + "/Elsewhere");
         f.makeSample(f.home + "/Other");
         if (!f.bindMount(f.home + "/Elsewhere", f.home + "/Taxes/2024/bound") ||
             !f.mountSmallDisk("1m", f.home + "/Other/2024/deep/scratch"))
             return std::nullopt;
         return {{{f.home + "/Taxes", CorvaneError::containsMountedDisk("Taxes")},
                  {f.home + "/Other", CorvaneError::containsMountedDisk("Other")}}};
     }},
    {"AppleDouble",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/._Taxes/a.txt", "a");
         writeFile(f.home + "/Taxes/2024/deep/._x", "x");
         return {{{f.home + "/._Taxes", CorvaneError::containsAppleDouble("._Taxes")},
                  {f.home + "/Taxes", CorvaneError::containsAppleDouble("Taxes")}}};
     }},
    {"ImmutableOrAppendOnly",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Report.pdf", "report");
         if (!f.mark(f.home + "/Report.pdf", "+i") ||
             !f.mark(f.home + "/Taxes/2024/deep/empty.txt", "+a"))
             return std::nullopt;
         return {{{f.home + "/Report.pdf", CorvaneError::finderLocked("Report.pdf"),
                   "Report.pdf is marked immutable or append-only. Clear the mark (chattr -i -a), "
                   "then try again."},
                  {f.home + "/Taxes", CorvaneError::containsFinderLocked("Taxes")}}};
     }},
    {"HardLinkedFile",
     [](F& f, Locker&) -> Arranged {
         writeFile(f.home + "/Report.pdf", "report");
         link((f.home + "/Report.pdf").c_str(), (f.home + "/Report copy.pdf").c_str());
         return {{{f.home + "/Report.pdf", CorvaneError::hardLinked("Report.pdf")}}};
     }},
    {"CloudPlaceholderInside",
     [](F& f, Locker& locker) -> Arranged {
         writeFile(f.home + "/Taxes/2024/.scan 2.pdf.icloud", "");
         locker.cloudDownloadTimeout = 0.2;
         return {{{f.home + "/Taxes", CorvaneError::stillInICloud("Taxes")}}};
     }},
    {"FileOpenForWriting",
     [](F& f, Locker&) -> Arranged {
         f.writer = holdForWriting(f.home + "/Taxes/notes 日本.txt");
         return {{{f.home + "/Taxes", CorvaneError::inUse({"sleep"})}}};
     }},
    {"NotEnoughSpace",
     [](F& f, Locker& locker) -> Arranged {
         const std::string item = f.home + "/Taxes";
         if (!f.mountSmallDisk("4m")) return std::nullopt;
         f.makeSample(item);
         return {{{item,
                   CorvaneError::notEnoughSpace(locker.spaceMargin + ItemFacts::allocatedSize(item),
                                                Locker::availableSpace(f.home).value())}}};
     }},
    {"HoldsTheSupportFolder",
     [](F& f, Locker& locker) -> Arranged {
         f.makeSample(f.home + "/Synced");
         locker = Locker(f.home + "/Synced/corvane", f.home, std::nullopt,
                         std::make_shared<GocryptfsTool>());
         f.held = SupportLock::acquire(f.home + "/Synced/corvane");
         return {{{f.home + "/Synced", CorvaneError::refused(LockRefusal::corvaneRecords),
                   "This is or holds Corvane's own records, so Corvane cannot lock it."}}};
     }},
    {"OpenLockedItemInside",
     [](F& f, Locker& locker) -> Arranged {
         locker.unlock(locker.lock(f.home + "/Taxes/2024", kPassword, 1).lastKnownPath, kPassword);
         return {{{f.home + "/Taxes", CorvaneError::containsUnlockedItem("Taxes")}}};
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
            EXPECT_EQ(errorFrom([&] { run(path); }),
                      CorvaneError::refused(LockRefusal::lockedItemShortcut))
                << operation << " " << path;
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(root.path())), Names{});
}

// Names taken by the user's own folders or by earlier locked items are never reused, locking or
// restoring.
TEST_F(LockerFailureTest, TakenNamesGetTheNextNumber) {
    Locker locker = makeLocker();
    std::filesystem::create_directory(home + "/Taxes.corvlock");
    ASSERT_GT(std::filesystem::hard_link_count(home + "/Taxes"), 1u)
        << "a folder's own link count must not count as a hard link";

    EXPECT_EQ(locker.lock(home + "/Taxes", kPassword, 1).lastKnownPath, home + "/Taxes 2.corvlock");
    makeSample(home + "/Taxes");
    EXPECT_EQ(locker.lock(home + "/Taxes", kPassword, 1).lastKnownPath, home + "/Taxes 3.corvlock");
    const Names taken = {"Taxes", "Taxes (restored)", "Taxes.corvlock"};
    for (const auto& name : taken) std::filesystem::create_directory(home + "/" + name);
    EXPECT_EQ(locker.removeLock(home + "/Taxes 2.corvlock", kPassword),
              home + "/Taxes (restored 2)");
    EXPECT_TRUE(sameAsPristine(home + "/Taxes (restored 2)"));
    EXPECT_EQ(listing(home), (Names{"Taxes", "Taxes (restored 2)", "Taxes (restored)",
                                    "Taxes 3.corvlock", "Taxes.corvlock"}));
    for (const auto& name : taken) EXPECT_TRUE(std::filesystem::is_empty(home + "/" + name));
}

// Failures before the locked item is visible: everything is undone, the original stays as it is.

TEST_F(LockerFailureTest, ItemChangedWhileLockingIsNotLocked) {
    Locker locker = makeLocker();
    const std::string notes = home + "/Taxes/notes 日本.txt";
    locker.afterVerify = [&] { std::ofstream(notes, std::ios::app) << " and more"; };

    auto error = errorFrom([&] { locker.lock(home + "/Taxes", kPassword, 1); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorCase(), CorvaneError::Case::changedWhileLocking);
    expectSettled(locker, {"Taxes"}, std::vector<LockedItem>{});
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
    Steps steps;
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
    EXPECT_EQ(steps, (Steps{LockStep::preparing, LockStep::encrypting}))
        << "the copy ran to its end although cancelled";
    expectSettled(locker, {"Taxes"}, std::vector<LockedItem>{});
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
    EXPECT_EQ(error->errorDescription(),
              "Copying failed: the disk became full, so nothing was changed; free some space, then "
              "try again.");
    expectSettled(locker, {"Big"}, std::vector<LockedItem>{});
    EXPECT_EQ(Locker::availableSpace(home), freeBefore) << "the partial image kept its space";
    EXPECT_EQ(changedPaths(before, Locker::metadataSnapshot(home + "/Big")), Names{});
}

// Removing the lock.

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
        std::filesystem::remove_all(home);
        std::filesystem::create_directory(home);
        for (const auto& each : taken) writeFile(home + "/" + each, "taken");
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
    expectSettled(locker, {"Taxes.corvlock"}, std::vector<LockedItem>{item});
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

// Two engines with records of their own, as two commands with different support folders: one
// keeps the other off the item it works on, and off the item it has open.
TEST_F(LockerFailureTest, AnotherCorvaneWithOtherRecordsIsKeptOut) {
    Locker mine = makeLocker();
    Locker other(root / "other support", home, std::nullopt, std::make_shared<GocryptfsTool>());
    const auto busy = CorvaneError::refused(LockRefusal::busyElsewhere);
    {
        const Folder folder(home);
        const ItemClaim working(folder, "Taxes");
        EXPECT_EQ(errorFrom([&] { other.lock(home + "/Taxes", kPassword, 1); }), busy);
    }
    LockedItem item = mine.lock(home + "/Taxes", kPassword, 1);
    {
        const Folder folder(home);
        const ItemClaim working(folder, "Taxes.corvlock");
        EXPECT_EQ(errorFrom([&] { other.unlock(item.lastKnownPath, kPassword); }), busy);
        EXPECT_EQ(errorFrom([&] { other.removeLock(item.lastKnownPath, kPassword); }), busy);
    }
    OpenItem open = mine.unlock(item.lastKnownPath, kPassword);
    const auto openElsewhere = CorvaneError::refused(LockRefusal::openElsewhere);
    EXPECT_EQ(errorFrom([&] { other.unlock(item.lastKnownPath, kPassword); }), openElsewhere);
    EXPECT_EQ(errorFrom([&] { other.removeLock(item.lastKnownPath, kPassword); }), openElsewhere);
    EXPECT_EQ(openElsewhere.errorDescription(),
              "This item is open in another Corvane; lock it there, then try again.");
    EXPECT_EQ(mine.openItems(), std::vector<OpenItem>{open});
    mine.relock(open, false);
    EXPECT_EQ(other.removeLock(item.lastKnownPath, kPassword), home + "/Taxes");
    EXPECT_TRUE(sameAsPristine(home + "/Taxes"));
}

}  // namespace
}  // namespace corvane
