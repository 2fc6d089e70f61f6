// Crash recovery on real images: every crash point of a lock and of a restore, and every failure
// once the locked item is visible, followed by recover(), ends with the data whole in exactly one
// place, nothing left over, and one count.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/statvfs.h>

#include <fstream>
#include <thread>

#include "Engine/Locker.h"
#include "LockerFixture.h"
#include "Records/JSONCodec.h"
#include "Records/Paths.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::errorFrom;
using testing::listing;
using testing::writeFile;
using Names = std::vector<std::string>;

const std::string kPassword = "locker recovery password";

TEST(RecoveryReport, NoticeSaysWhatWasDone) {
    const std::pair<RecoveryReport, std::optional<RecoveryNotice>> cases[] = {
        {{.detachedStale = 3}, std::nullopt},  // closing forgotten mounts is silent
        {{.keptForLater = 1},
         RecoveryNotice{"Corvane has unfinished work",
                        "It could not finish 1 interrupted job yet and will try again next time it "
                        "opens."}},
        {{.finishedLocks = 2, .indexWasDamaged = true},
         RecoveryNotice{"Corvane set a damaged file aside",
                        "It finished locking 2 items. Corvane's list of locked items was damaged, "
                        "so it set the list aside and started a new one. Your locked items are "
                        "safe and appear in the list again when you unlock them."}},
        {{.discardedLocks = 1,
          .finishedRestores = 1,
          .discardedRestores = 2,
          .keptChangedOriginals = 2,
          .keptForLater = 2},
         RecoveryNotice{
             "Corvane finished interrupted work",
             "It stopped 1 unfinished lock and left that original unchanged. It finished removing "
             "the lock from 1 item. It stopped 2 unfinished lock removals. Those items are still "
             "locked. 2 originals changed after Corvane locked them, so Corvane kept them next to "
             "the locked copies. It could not finish 2 interrupted jobs yet and will try again "
             "next time it opens."}},
        {{.discardedLocks = 2,
          .discardedRestores = 1,
          .keptChangedOriginals = 1,
          .journalWasDamaged = true},
         RecoveryNotice{
             "Corvane set a damaged file aside",
             "It stopped 2 unfinished locks and left those originals unchanged. It stopped 1 "
             "unfinished lock removal. That item is still locked. 1 original changed after "
             "Corvane locked it, so Corvane kept it next to the locked copy. Corvane's record of "
             "unfinished work was damaged, so it set the record aside and changed nothing."}},
    };
    for (const auto& [report, notice] : cases) EXPECT_EQ(report.notice(), notice);
}

class LockerRecoveryTest : public testing::LockerFixture {
public:
    // Locks the sample and stops at `point`.
    void crashLocking(Locker& locker, CrashPoint point) {
        locker.crashPoint = point;
        EXPECT_THROW(locker.lock(home + "/Taxes", kPassword, 1), SimulatedCrash);
        locker.crashPoint.reset();
    }
};

// Interruptions after the journal's first write: a crash point, or a failure once the locked item
// is visible. Nothing is undone on the spot; each lock leaves exactly the state recovery reads.

enum class Cause { crash, flush, indexFile, deletion };
enum class Index { none, pending, unreadable };
enum class Original { here, deleting, gone };

struct Interruption {
    Cause cause;
    std::optional<CrashPoint> point;
    // What recovery must end with: the operation finished, or the item as it was before it.
    bool finished;
    // What an interrupted lock leaves:
    bool stamped = false;   // the journal entry carries lockedIdentity and lockedAt
    bool moved = false;     // the image has its final ".corvlock" name
    bool attached = false;  // the image is still attached read-write
    Index index = Index::none;
    Original original = Original::here;
};

class LockerRecoveryInterruptedTest : public LockerRecoveryTest,
                                      public ::testing::WithParamInterface<Interruption> {};

TEST_P(LockerRecoveryInterruptedTest, EndsWithTheDataWholeInOnePlace) {
    const Interruption& row = GetParam();
    const bool restoring = row.point && CrashPoints::rawValue(*row.point).starts_with("restore");
    Locker locker = makeLocker();
    std::optional<LockedItem> item;
    if (restoring) item = locker.lock(home + "/Taxes", kPassword, 1);
    locker.crashPoint = row.point;
    auto fail = [](auto&&...) { throw std::runtime_error("the disk went away"); };
    if (row.cause == Cause::flush) locker.flushVolume = fail;
    // An index behind a file where its folder should be can be neither read nor written.
    const ItemIndex unusable(support + "/blocked/items.json");
    if (row.cause == Cause::indexFile) {
        writeFile(support + "/blocked", "");
        locker.index = unusable;
    }
    if (row.cause == Cause::deletion) locker.deleteRenamedOriginal = fail;

    auto interrupted = [&] {
        restoring ? void(locker.removeLock(item->lastKnownPath, kPassword))
                  : void(locker.lock(home + "/Taxes", kPassword, 1));
    };
    if (row.cause == Cause::crash) {
        EXPECT_THROW(interrupted(), SimulatedCrash);
    } else {
        auto error = errorFrom(interrupted);
        ASSERT_TRUE(error);
        EXPECT_TRUE(*error == (row.cause == Cause::deletion
                                   ? CorvaneError::lockedButRemovalUnfinished("Taxes")
                                   : CorvaneError::lockedButOriginalRemains("Taxes")))
            << error->errorDescription();
    }

    if (!restoring) {
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
            for (const auto& pending : items)
                EXPECT_TRUE(pending.id == entry.id &&
                            pending.stage == LockedItem::Stage::originalPending &&
                            pending.originalPath == home + "/Taxes");
        }
    }

    // The next start; while the index cannot be written, the work waits for a later one.
    Locker restarted = makeLocker();
    if (row.index == Index::unreadable) {
        const Names before = listing(home);
        restarted.index = unusable;
        EXPECT_EQ(restarted.recover(), RecoveryReport{.keptForLater = 1});
        EXPECT_EQ(listing(home), before);
        restarted.index = ItemIndex(support + "/items.json");
    }
    RecoveryReport expected;
    (restoring ? (row.finished ? expected.finishedRestores : expected.discardedRestores)
               : (row.finished ? expected.finishedLocks : expected.discardedLocks)) = 1;
    EXPECT_EQ(restarted.recover(), expected);
    const bool locked = restoring != row.finished;
    expectSettled(restarted, {locked ? "Taxes.corvlock" : "Taxes"});
    auto records = restarted.index.load();
    ASSERT_EQ(records.size(), locked ? 1u : 0u);
    if (locked) {
        EXPECT_EQ(std::tuple(records[0].stage, records[0].originalPath),
                  std::tuple(LockedItem::Stage::complete, std::nullopt));
        EXPECT_TRUE(records[0].contentSize) << "a record made again knows its size";
        EXPECT_TRUE(sameAsPristine(restarted.removeLock(home + "/Taxes.corvlock", kPassword)));
    } else {
        EXPECT_TRUE(sameAsPristine(home + "/Taxes"));
    }
    EXPECT_EQ(restarted.recover(), RecoveryReport{}) << "a second start finds nothing to do";
}

using P = CrashPoint;
const Interruption kInterruptions[] = {
    // cause, crash point, finished, stamped, moved, attached, index, original
    {Cause::crash, P::lockAfterCreate, false},
    {Cause::crash, P::lockAfterCopy, false, false, false, true},
    {Cause::crash, P::lockAfterVerify, false},
    {Cause::crash, P::lockBeforeRename, false, true},
    {Cause::crash, P::lockAfterMove, true, true, true},
    {Cause::crash, P::lockAfterRename, true, true, true, false, Index::pending},
    {Cause::crash, P::lockAfterRenameToDeleting, true, true, true, false, Index::pending,
     Original::deleting},
    {Cause::crash, P::lockAfterDeleteOriginal, true, true, true, false, Index::pending,
     Original::gone},
    {Cause::flush, std::nullopt, true, true, true, false, Index::pending},
    {Cause::indexFile, std::nullopt, true, true, true, false, Index::unreadable},
    {Cause::deletion, std::nullopt, true, true, true, false, Index::pending, Original::deleting},
    {Cause::crash, P::restoreAfterCopy, false},
    {Cause::crash, P::restoreBeforeRename, false},
    {Cause::crash, P::restoreAfterRename, true},
    {Cause::crash, P::restoreAfterDeleteLocked, true},
};

const char* const kCauseNames[] = {"", "FlushFails", "IndexUnwritable", "DeleteFails"};

INSTANTIATE_TEST_SUITE_P(, LockerRecoveryInterruptedTest, ::testing::ValuesIn(kInterruptions),
                         [](const auto& info) {
                             auto point = info.param.point;
                             return std::string(point ? CrashPoints::rawValue(*point)
                                                      : kCauseNames[int(info.param.cause)]);
                         });

// A save that lands after a crash at the point of no return, however soon and whatever time it
// leaves behind, keeps the original next to the locked copy.
TEST_F(LockerRecoveryTest, ASaveAfterACrashKeepsTheOriginal) {
    using Save = testing::LockerFixture::Save;
    struct Row {
        const char* what;
        CrashPoint point;
        Save save;
        bool nameTaken = false;
    };
    const Row rows[] = {
        {"an addition at once", CrashPoint::lockAfterRename, Save::append},
        {"a rewrite with its time put back", CrashPoint::lockAfterRename, Save::rewriteKeepingTime},
        {"an addition to the original moved aside", CrashPoint::lockAfterRenameToDeleting,
         Save::append},
        {"a file of it held open for writing", CrashPoint::lockAfterRenameToDeleting,
         Save::holdForWriting},
        {"an addition, and its name taken by a new folder", CrashPoint::lockAfterRenameToDeleting,
         Save::append, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::filesystem::remove_all(home);
        std::filesystem::remove_all(support);
        makeSample(home + "/Taxes");
        Locker locker = makeLocker();
        crashLocking(locker, row.point);
        const std::string aside =
            row.point == CrashPoint::lockAfterRename
                ? home + "/Taxes"
                : home + "/.corvane-" + locker.journal.load().at(0).id.string() + ".deleting";
        save(row.save, aside + "/notes 日本.txt");
        if (row.nameTaken) writeFile(home + "/Taxes/new.txt", "new");

        EXPECT_EQ(locker.recover(), RecoveryReport{.keptChangedOriginals = 1});
        const std::string kept = home + (row.nameTaken ? "/Taxes (original)" : "/Taxes");
        expectSettled(locker, row.nameTaken ? Names{"Taxes", "Taxes (original)", "Taxes.corvlock"}
                                            : Names{"Taxes", "Taxes.corvlock"});
        EXPECT_EQ(testing::readFile(kept + "/notes 日本.txt"), saved(row.save, "notes"));
        if (row.nameTaken) {
            EXPECT_EQ(testing::readFile(home + "/Taxes/new.txt"), "new");
        }
        auto items = locker.index.load();
        ASSERT_EQ(items.size(), 1u);
        EXPECT_EQ(items[0].stage, LockedItem::Stage::complete);
        closeHeldFiles();
    }
}

// An entry, damaged or crafted, that names what its operation would not have made: nothing is
// removed, and the entry waits, reported.
TEST_F(LockerRecoveryTest, RecoveryRemovesOnlyWhatItsEntryMade) {
    const Uuid id = Uuid::random();
    const std::string hidden = "/.corvane-" + id.string();
    for (const std::string& folder : {home + "/Precious", home + hidden + ".partial.sparsebundle",
                                      home + "/elsewhere" + hidden + ".partial.sparsebundle"})
        makeSample(folder);
    auto entry = [&](JournalEntry::Kind kind, std::string original, std::string partial,
                     std::optional<std::string> deleting = std::nullopt) {
        return JournalEntry{id,           kind,         home + original,     home + partial, "",
                            std::nullopt, std::nullopt, std::move(deleting), std::nullopt};
    };
    using Kind = JournalEntry::Kind;
    const JournalEntry entries[] = {
        entry(Kind::lock, "/Taxes", "/Precious"),
        entry(Kind::lock, "/Taxes", hidden + ".partial.sparsebundle"),  // a folder, not an image
        entry(Kind::lock, "/Taxes", "/elsewhere" + hidden + ".partial.sparsebundle"),
        entry(Kind::lock, "/Taxes", hidden + ".partial.sparsebundle", home + "/Precious"),
        entry(Kind::restore, "/Taxes.corvlock", "/Precious"),
    };
    const Names before = listing(home);
    for (const auto& crafted : entries) {
        SCOPED_TRACE(crafted.partialPath);
        Locker locker = makeLocker();
        locker.journal.add(crafted);
        EXPECT_EQ(locker.recover(), RecoveryReport{.keptForLater = 1});
        EXPECT_EQ(locker.journal.load(), std::vector<JournalEntry>{crafted});
        EXPECT_EQ(listing(home), before);
        for (const std::string& folder :
             {home + "/Precious", home + "/Taxes", home + hidden + ".partial.sparsebundle",
              home + "/elsewhere" + hidden + ".partial.sparsebundle"})
            EXPECT_TRUE(sameAsPristine(folder)) << folder;
        locker.journal.remove(id);
    }
}

// The user moves or renames the locked item, or opens it, before recovery runs: its lock is still
// finished where it can be found, waits where it cannot, and nothing of the user's is closed.
TEST_F(LockerRecoveryTest, AMovedOrOpenedItemIsFollowedNeverClosed) {
    struct Row {
        const char* what;
        CrashPoint point;
        const char* movedTo;  // below home; nullptr: left in place
        bool open = false;
    };
    const Row rows[] = {
        {"renamed in place", CrashPoint::lockAfterRename, "Renamed.corvlock"},
        {"moved to another folder", CrashPoint::lockAfterRename, "moved/Taxes.corvlock"},
        {"moved with its original aside", CrashPoint::lockAfterRenameToDeleting,
         "moved/Taxes.corvlock"},
        {"opened by the user", CrashPoint::lockAfterDeleteOriginal, nullptr, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::filesystem::remove_all(home);
        std::filesystem::remove_all(support);
        makeSample(home + "/Taxes");
        Locker locker = makeLocker();
        crashLocking(locker, row.point);
        const JournalEntry entry = locker.journal.load().at(0);
        std::string locked = home + "/Taxes.corvlock";
        if (row.movedTo) {
            std::filesystem::create_directories(home + "/moved");
            std::filesystem::rename(locked, home + "/" + row.movedTo);
            locked = home + "/" + row.movedTo;
        }
        // A program whose command line mentions the item's id, as a user's own might.
        const pid_t mentioning =
            std::stoi(ProcessRunner::run(
                          "/bin/sh", {"-c", "sh -c 'sleep 60; :' \"notes on " + entry.id.string() +
                                                "\" > /dev/null 2>&1 & echo $!"})
                          .output);
        std::optional<OpenItem> open;
        if (row.open) open = locker.unlock(locked, kPassword);

        const bool found =
            std::string(row.movedTo ? row.movedTo : "").find('/') == std::string::npos;
        EXPECT_EQ(locker.recover(),
                  found ? RecoveryReport{.finishedLocks = 1} : RecoveryReport{.keptForLater = 1});
        auto records = locker.index.load();
        ASSERT_EQ(records.size(), 1u);
        if (found) {
            EXPECT_EQ(std::tuple(records[0].stage, records[0].lastKnownPath),
                      std::tuple(LockedItem::Stage::complete, locked));
            EXPECT_FALSE(std::filesystem::exists(home + "/Taxes"));
        } else {
            // Kept, with the original, until the item is back where its record finds it.
            EXPECT_EQ(locker.journal.load(), std::vector<JournalEntry>{entry});
            std::filesystem::rename(locked, home + "/Taxes.corvlock");
            EXPECT_EQ(locker.recover(), RecoveryReport{.finishedLocks = 1});
        }
        EXPECT_TRUE(locker.journal.load().empty());
        EXPECT_EQ(kill(mentioning, 0), 0) << "a process that only mentions the id was ended";
        kill(mentioning, SIGKILL);
        if (open) {
            EXPECT_EQ(locker.openItems(), std::vector<OpenItem>{*open});
            EXPECT_EQ(testing::readFile(open->mountPoint + "/notes 日本.txt"), "notes");
            locker.relock(*open, false);
        }
    }
}

// Removing the lock from an item the user renamed, interrupted: recovery forgets its record too.
TEST_F(LockerRecoveryTest, AnInterruptedRemovalForgetsARenamedItemsRecord) {
    for (CrashPoint point :
         {CrashPoint::restoreAfterRename, CrashPoint::restoreAfterDeleteLocked}) {
        SCOPED_TRACE(CrashPoints::rawValue(point));
        std::filesystem::remove_all(home);
        std::filesystem::remove_all(support);
        makeSample(home + "/Taxes");
        Locker locker = makeLocker();
        locker.lock(home + "/Taxes", kPassword, 1);
        std::filesystem::rename(home + "/Taxes.corvlock", home + "/Renamed.corvlock");
        locker.crashPoint = point;
        EXPECT_THROW(locker.removeLock(home + "/Renamed.corvlock", kPassword), SimulatedCrash);
        locker.crashPoint.reset();

        EXPECT_EQ(locker.recover(), RecoveryReport{.finishedRestores = 1});
        expectSettled(locker, {"Taxes"}, std::vector<LockedItem>{});
        EXPECT_TRUE(sameAsPristine(home + "/Taxes"));
    }
}

TEST_F(LockerRecoveryTest, StaleMountsCloseKnownOnesStayAndUnreachableWorkWaits) {
    Locker locker = makeLocker();
    LockedItem item = locker.lock(home + "/Taxes", kPassword, 1);
    OpenItem open = locker.unlock(item.lastKnownPath, kPassword);
    // An image left attached under an id no record has, as after a crash during an unlock.
    makeSample(home + "/Other");
    LockedItem other = locker.lock(home + "/Other", kPassword, 1);
    locker.index.remove(other.id);
    const std::string stale = locker.mountsRoot + "/" + Uuid::random().string();
    locker.makeMountPoint(stale);
    locker.tool->attach(other.lastKnownPath, stale, kPassword, false);
    std::filesystem::create_directories(locker.mountsRoot + "/empty leftover");
    // Work in a folder that is not there now, as on a drive that is not connected.
    const std::string away = "/nonexistent-drive/";
    const JournalEntry waiting{Uuid::random(),
                               JournalEntry::Kind::lock,
                               away + "Work",
                               away + ".corvane-x.partial.sparsebundle",
                               away + "Work.corvlock",
                               std::nullopt,
                               std::nullopt,
                               std::nullopt,
                               std::nullopt};
    locker.journal.add(waiting);

    EXPECT_EQ(locker.recover(), (RecoveryReport{.detachedStale = 1, .keptForLater = 1}));
    EXPECT_EQ(locker.openItems(), std::vector<OpenItem>{open});
    EXPECT_EQ(listing(locker.mountsRoot), Names{item.id.string()});
    EXPECT_EQ(locker.journal.load(), std::vector<JournalEntry>{waiting});
}

TEST_F(LockerRecoveryTest, ADamagedJournalIsSetAsideAndNothingChanges) {
    Locker locker = makeLocker();
    crashLocking(locker, CrashPoint::lockAfterCopy);
    const Names before = listing(home);
    std::ofstream(locker.journal.fileURL(), std::ios::app) << "torn";

    EXPECT_EQ(locker.recover(), RecoveryReport{.journalWasDamaged = true});
    EXPECT_EQ(listing(home), before) << "work was undone without its record";
    EXPECT_EQ(ourMounts().size(), 1u);
}

}  // namespace
}  // namespace corvane
