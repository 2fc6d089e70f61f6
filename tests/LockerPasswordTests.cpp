// Moving locked items to a new password on real images: open items stop it, an interruption
// leaves every image opening with exactly one of the two passwords, and what was already moved or
// could not be found is recognised on the next run.
#include <gtest/gtest.h>

#include "Engine/Locker.h"
#include "LockerFixture.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::errorFrom;

const std::string kOld = "the old password", kNew = "the new password";

class LockerPasswordTest : public testing::LockerFixture {
public:
    // Which of the two passwords opens the image at `path`: "old", "new", or "both"/"none".
    std::string opensWith(const std::string& path) {
        auto opens = [&](const std::string& password) {
            std::string mountPoint = root / "probe";
            std::filesystem::create_directories(mountPoint);
            try {
                GocryptfsTool().attach(path, mountPoint, password, true);
            } catch (const CorvaneError&) {
                return false;
            }
            ProcessRunner::run("/usr/bin/fusermount3", {"-u", mountPoint});
            return true;
        };
        bool old = opens(kOld), fresh = opens(kNew);
        return old && fresh ? "both" : old ? "old" : fresh ? "new" : "none";
    }
};

TEST_F(LockerPasswordTest, InterruptedAndUnreachableItemsMoveOnALaterRun) {
    Locker locker = makeLocker();
    makeSample(home + "/Second");
    LockedItem first = locker.lock(home + "/Taxes", kOld, 1);
    LockedItem second = locker.lock(home + "/Second", kOld, 1);

    OpenItem open = locker.unlock(first.lastKnownPath, kOld);
    auto refused = errorFrom([&] { locker.changePassword(kOld, kNew, 2); });
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->errorDescription(), "Lock every unlocked item first.");
    locker.relock(open, false);
    EXPECT_EQ(opensWith(first.lastKnownPath), "old") << "an image was touched while one was open";

    locker.crashPoint = CrashPoint::passwordAfterFirstItem;
    EXPECT_THROW(locker.changePassword(kOld, kNew, 2), SimulatedCrash);
    locker.crashPoint.reset();
    EXPECT_EQ(opensWith(first.lastKnownPath), "new");
    EXPECT_EQ(opensWith(second.lastKnownPath), "old");
    EXPECT_EQ(locker.itemsStillMigrating(2), std::vector<std::string>{"Second"});
    const auto config = std::filesystem::last_write_time(first.lastKnownPath + "/gocryptfs.conf");

    // An item that cannot be found, as on a drive unplugged, waits for the next run.
    std::filesystem::rename(second.lastKnownPath, root / "away.corvlock");
    auto failures = locker.changePassword(kOld, kNew, 2);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures.begin()->first, second.id);
    EXPECT_EQ(failures.begin()->second.errorCase(), CorvaneError::Case::notFound);
    EXPECT_EQ(locker.itemsStillMigrating(2), std::vector<std::string>{"Second"});
    std::filesystem::rename(root / "away.corvlock", second.lastKnownPath);

    // The second image was re-keyed, but the crash came before its record said so.
    locker.tool->changePassword(second.lastKnownPath, kOld, kNew);
    EXPECT_TRUE(locker.changePassword(kOld, kNew, 2).empty());
    EXPECT_TRUE(locker.itemsStillMigrating(2).empty());
    for (const auto& item : locker.index.load()) EXPECT_EQ(item.passwordGeneration, 2);
    EXPECT_EQ(opensWith(second.lastKnownPath), "new");
    EXPECT_EQ(std::filesystem::last_write_time(first.lastKnownPath + "/gocryptfs.conf"), config)
        << "an item already on the generation was re-keyed again";
    EXPECT_TRUE(sameAsPristine(locker.removeLock(first.lastKnownPath, kNew)));
}

// Items found again after they were forgotten (or after the index was set aside) come back with
// no known generation: the current password is tried on them first, earlier ones after it.
TEST_F(LockerPasswordTest, ItemsOfUnknownGenerationCatchUp) {
    Locker locker = makeLocker();
    makeSample(home + "/Second");
    LockedItem current = locker.lock(home + "/Taxes", kNew, 0);
    LockedItem earlier = locker.lock(home + "/Second", kOld, 0);

    StoredSecret secret;
    secret.password = kNew;
    secret.generation = 2;
    auto failures = locker.finishMigration(secret);
    ASSERT_EQ(failures.size(), 1u) << "only the item on a password the record forgot stays";
    EXPECT_EQ(failures.begin()->first, earlier.id);
    EXPECT_EQ(locker.itemsStillMigrating(2), std::vector<std::string>{"Second"});

    secret.previous = kOld;
    EXPECT_TRUE(locker.finishMigration(secret).empty());
    EXPECT_TRUE(locker.itemsStillMigrating(2).empty());
    EXPECT_EQ(opensWith(current.lastKnownPath), "new");
    EXPECT_EQ(opensWith(earlier.lastKnownPath), "new");
}

}  // namespace
}  // namespace corvane
