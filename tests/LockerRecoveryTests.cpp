// Crash recovery on real images: every crash point of a lock and of a restore, followed by
// recover(), ends with the data whole in exactly one place, nothing left over, and one count.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "Engine/Locker.h"
#include "LockerFixture.h"
#include "Records/JSONCodec.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::listing;
using testing::writeFile;
using Names = std::vector<std::string>;

const std::string kPassword = "locker recovery password";

TEST(RecoveryReport, NoticeSaysWhatWasDone) {
    auto with = [](auto change) {
        RecoveryReport report;
        change(report);
        return report.notice();
    };
    EXPECT_EQ(with([](RecoveryReport& r) { r.detachedStale = 3; }), std::nullopt)
        << "closing forgotten mounts is silent";
    EXPECT_EQ(with([](RecoveryReport& r) { r.keptForLater = 1; }),
              (RecoveryNotice{"Corvane has unfinished work",
                              "It could not finish 1 interrupted job yet and will try again next "
                              "time it opens."}));
    EXPECT_EQ(with([](RecoveryReport& r) {
                  r.finishedLocks = 2;
                  r.indexWasDamaged = true;
              }),
              (RecoveryNotice{"Corvane set a damaged file aside",
                              "It finished locking 2 items. Corvane's list of locked items was "
                              "damaged, so it set the list aside and started a new one. Your "
                              "locked items are safe and appear in the list again when you unlock "
                              "them."}));
    EXPECT_EQ(with([](RecoveryReport& r) {
                  r.discardedLocks = 1;
                  r.finishedRestores = 1;
                  r.discardedRestores = 2;
                  r.keptChangedOriginals = 2;
                  r.keptForLater = 2;
              }),
              (RecoveryNotice{
                  "Corvane finished interrupted work",
                  "It stopped 1 unfinished lock and left that original unchanged. It finished "
                  "removing the lock from 1 item. It stopped 2 unfinished lock removals. Those "
                  "items are still locked. 2 originals changed after Corvane locked them, so "
                  "Corvane kept them next to the locked copies. It could not finish 2 interrupted "
                  "jobs yet and will try again next time it opens."}));
    EXPECT_EQ(with([](RecoveryReport& r) {
                  r.discardedLocks = 2;
                  r.discardedRestores = 1;
                  r.keptChangedOriginals = 1;
                  r.journalWasDamaged = true;
              })->body,
              "It stopped 2 unfinished locks and left those originals unchanged. It stopped 1 "
              "unfinished lock removal. That item is still locked. 1 original changed after "
              "Corvane locked it, so Corvane kept it next to the locked copy. Corvane's record of "
              "unfinished work was damaged, so it set the record aside and changed nothing.");
}

class LockerRecoveryTest : public testing::LockerFixture {
public:
    // Nothing of the operation is left: no hidden names, mounts, mount points or journal entries.
    void expectSettled(const Locker& locker, const Names& names) {
        EXPECT_EQ(listing(home), names);
        EXPECT_TRUE(ourMounts().empty());
        EXPECT_TRUE(!std::filesystem::exists(locker.mountsRoot) ||
                    std::filesystem::is_empty(locker.mountsRoot));
        EXPECT_TRUE(locker.journal.load().empty());
    }
};

struct Crash {
    CrashPoint point;
    // What recovery must end with: the lock finished, or the item as it was before the operation.
    bool finished;
};

class LockerRecoveryCrashTest : public LockerRecoveryTest,
                                public ::testing::WithParamInterface<Crash> {};

TEST_P(LockerRecoveryCrashTest, EndsWithTheDataWholeInOnePlace) {
    const auto [point, finished] = GetParam();
    const bool restoring = CrashPoints::rawValue(point).starts_with("restore");
    Locker locker = makeLocker();
    std::optional<LockedItem> item;
    if (restoring) item = locker.lock(home + "/Taxes", kPassword, 1);
    locker.crashPoint = point;
    EXPECT_THROW(restoring ? void(locker.removeLock(item->lastKnownPath, kPassword))
                           : void(locker.lock(home + "/Taxes", kPassword, 1)),
                 SimulatedCrash);
    locker.crashPoint.reset();

    RecoveryReport expected;
    (restoring ? (finished ? expected.finishedRestores : expected.discardedRestores)
               : (finished ? expected.finishedLocks : expected.discardedLocks)) = 1;
    EXPECT_EQ(locker.recover(), expected);
    const bool locked = restoring != finished;
    expectSettled(locker, {locked ? "Taxes.corvlock" : "Taxes"});
    auto records = locker.index.load();
    ASSERT_EQ(records.size(), locked ? 1u : 0u);
    if (locked) {
        EXPECT_EQ(records[0].stage, LockedItem::Stage::complete);
        EXPECT_EQ(records[0].originalPath, std::nullopt);
        EXPECT_TRUE(sameAsPristine(locker.removeLock(home + "/Taxes.corvlock", kPassword)));
    } else {
        EXPECT_TRUE(sameAsPristine(home + "/Taxes"));
    }
    EXPECT_EQ(locker.recover(), RecoveryReport{}) << "a second start finds nothing to do";
}

using P = CrashPoint;
const Crash kCrashes[] = {
    {P::lockAfterCreate, false},
    {P::lockAfterCopy, false},
    {P::lockAfterVerify, false},
    {P::lockBeforeRename, false},
    {P::lockAfterMove, true},
    {P::lockAfterRename, true},
    {P::lockAfterRenameToDeleting, true},
    {P::lockAfterDeleteOriginal, true},
    {P::restoreAfterCopy, false},
    {P::restoreBeforeRename, false},
    {P::restoreAfterRename, true},
    {P::restoreAfterDeleteLocked, true},
};

INSTANTIATE_TEST_SUITE_P(, LockerRecoveryCrashTest, ::testing::ValuesIn(kCrashes),
                         [](const auto& info) {
                             return std::string(CrashPoints::rawValue(info.param.point));
                         });

TEST_F(LockerRecoveryTest, AnOriginalChangedAfterTheLockIsKept) {
    Locker locker = makeLocker();
    locker.crashPoint = CrashPoint::lockAfterRename;
    EXPECT_THROW(locker.lock(home + "/Taxes", kPassword, 1), SimulatedCrash);
    locker.crashPoint.reset();
    // Two seconds later than the lock: past the second of grace for its rounded time.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    writeFile(home + "/Taxes/2024/deep/new.txt", "written after the lock");

    RecoveryReport expected;
    expected.keptChangedOriginals = 1;
    EXPECT_EQ(locker.recover(), expected);
    expectSettled(locker, {"Taxes", "Taxes.corvlock"});
    EXPECT_EQ(testing::readFile(home + "/Taxes/2024/deep/new.txt"), "written after the lock");
    ASSERT_EQ(locker.index.load().size(), 1u);
    EXPECT_EQ(locker.index.load()[0].stage, LockedItem::Stage::complete);
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
    JournalEntry away{Uuid::random(),
                      JournalEntry::Kind::lock,
                      "/nonexistent-drive/Work",
                      "/nonexistent-drive/.corvane-x.partial.sparsebundle",
                      "/nonexistent-drive/Work.corvlock",
                      std::nullopt,
                      std::nullopt,
                      std::nullopt};
    locker.journal.add(away);

    RecoveryReport expected;
    expected.detachedStale = 1;
    expected.keptForLater = 1;
    EXPECT_EQ(locker.recover(), expected);
    EXPECT_EQ(locker.openItems(), std::vector<OpenItem>{open});
    EXPECT_EQ(listing(locker.mountsRoot), Names{item.id.string()});
    EXPECT_EQ(locker.journal.load(), std::vector<JournalEntry>{away});
}

TEST_F(LockerRecoveryTest, ADamagedJournalIsSetAsideAndNothingChanges) {
    Locker locker = makeLocker();
    locker.crashPoint = CrashPoint::lockAfterCopy;
    EXPECT_THROW(locker.lock(home + "/Taxes", kPassword, 1), SimulatedCrash);
    const Names before = listing(home);
    std::ofstream(locker.journal.fileURL(), std::ios::app) << "torn";

    RecoveryReport expected;
    expected.journalWasDamaged = true;
    EXPECT_EQ(locker.recover(), expected);
    EXPECT_EQ(listing(home), before) << "work was undone without its record";
    EXPECT_EQ(ourMounts().size(), 1u);
}

}  // namespace
}  // namespace corvane
