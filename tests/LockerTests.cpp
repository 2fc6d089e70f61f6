// The locking engine end to end, on real files with real gocryptfs images.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "Engine/Locker.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/MountTable.h"
#include "LockerFixture.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::listing;
using testing::readFile;
using testing::writeFile;
using Names = std::vector<std::string>;
using Steps = std::vector<LockStep>;

const std::string kPassword = "locker test password";

using LockerTest = testing::LockerFixture;

// Paths as a shell gives them: relative to the working folder, with a trailing slash from
// completion. Each names the one item, which is recorded by its whole path.
TEST_F(LockerTest, FolderLocksOpensClosesAndRestoresIdentical) {
    struct WorkingFolder {
        std::filesystem::path saved = std::filesystem::current_path();
        ~WorkingFolder() { std::filesystem::current_path(saved); }
    } restoredAtTheEnd;
    std::filesystem::current_path(home);
    Locker locker = makeLocker();
    // Both copies must be in place whenever the one about to go is flushed.
    std::vector<Names> atFlush;
    locker.flushVolume = [&](const Folder& folder) {
        atFlush.push_back(listing(home));
        folder.synchronize();
    };
    Steps steps;
    auto heard = [&](LockStep step) { steps.push_back(step); };

    LockedItem item = locker.lock("Taxes/", kPassword, 1, nullptr, heard);
    EXPECT_EQ(steps, (Steps{LockStep::preparing, LockStep::encrypting, LockStep::verifying,
                            LockStep::removingOriginal, LockStep::finishing}));
    EXPECT_EQ(item.lastKnownPath, home + "/Taxes.corvlock");
    EXPECT_EQ(item.stage, LockedItem::Stage::complete);
    EXPECT_EQ(item.contentSize, 300005);
    expectSettled(locker, {"Taxes.corvlock"}, std::vector<LockedItem>{item});

    OpenItem open = locker.unlock("Taxes.corvlock/", kPassword);
    EXPECT_EQ(open.name, "Taxes");
    EXPECT_EQ(open.lockedURL, home + "/Taxes.corvlock");
    EXPECT_EQ(readFile(open.contentURL() + "/notes 日本.txt"), "notes");
    EXPECT_EQ(locker.openItems(), std::vector<OpenItem>{open});
    EXPECT_EQ(locker.unlock(item.lastKnownPath, kPassword), open) << "opened twice";
    locker.relock(open, false);
    EXPECT_TRUE(locker.openItems().empty());
    EXPECT_FALSE(std::filesystem::exists(open.mountPoint));

    // Its record lost, as for an item locked on another computer: unlocking adopts it, once.
    // And the mount points' folder is a link to elsewhere, which is kept aside, never followed.
    locker.index.save({});
    std::filesystem::remove(support + "/Open");
    std::filesystem::create_directory(root / "elsewhere");
    ASSERT_EQ(symlink((root / "elsewhere").c_str(), (support + "/Open").c_str()), 0);
    open = locker.unlock("./Taxes.corvlock", kPassword);
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::symlink_status(support + "/Open")));
    EXPECT_TRUE(std::filesystem::is_empty(root / "elsewhere"));
    auto records = locker.index.load();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].lastKnownPath, home + "/Taxes.corvlock");
    EXPECT_EQ(locker.unlock(home + "/Taxes.corvlock", kPassword), open) << "adopted twice";
    locker.relock(open, false);

    steps.clear();
    std::string restored = locker.removeLock("./Taxes.corvlock/", kPassword, nullptr, heard);
    EXPECT_EQ(restored, home + "/Taxes");
    EXPECT_EQ(steps, (Steps{LockStep::restoring, LockStep::finishing}));
    EXPECT_TRUE(sameAsPristine(restored));
    expectSettled(locker, {"Taxes"}, std::vector<LockedItem>{});
    EXPECT_EQ(atFlush, (std::vector<Names>(2, {"Taxes", "Taxes.corvlock"})));
}

TEST_F(LockerTest, FileLocksUnderItsBaseNameAndRestoresBeside) {
    // The longest name a file may have leaves no room for "(restored)" without shortening.
    const std::string longest = std::string(251, 'r');
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"Report", "Report", "Report (restored).pdf"},
        {longest, std::string(242, 'r'), std::string(240, 'r') + " (restored).pdf"},
    };
    Locker locker = makeLocker();
    for (const auto& [base, lockedBase, restored] : rows) {
        SCOPED_TRACE(restored);
        const std::string original = home + "/" + base + ".pdf";
        writeFile(original, "report v1");
        LockedItem item = locker.lock(original, kPassword, 1);
        EXPECT_EQ(item.lastKnownPath, home + "/" + lockedBase + ".corvlock");
        EXPECT_EQ(item.kind, LockedItem::Kind::file);

        // Asked for by where it was, as much as by the locked item.
        OpenItem open = locker.unlock(original, kPassword);
        EXPECT_EQ(locker.unlock(item.lastKnownPath, kPassword), open);
        EXPECT_EQ(open.contentURL(), open.mountPoint + "/" + base + ".pdf");
        EXPECT_EQ(readFile(open.contentURL()), "report v1");
        locker.relock(open, false);

        writeFile(original, "a newer report");
        EXPECT_EQ(locker.removeLock(item.lastKnownPath, kPassword), home + "/" + restored);
        EXPECT_EQ(readFile(home + "/" + restored), "report v1");
        EXPECT_EQ(readFile(original), "a newer report");
    }
}

// An item left open by a program that has gone closes itself once nothing uses it, never while a
// file in it is open. Watched in the mount table, which asks the item's server nothing.
TEST_F(LockerTest, AnOpenItemUnusedForTheIdleLimitClosesItself) {
    auto tool = std::make_shared<GocryptfsTool>();
    tool->setIdleLimit(std::chrono::seconds(2));
    Locker locker(support, home, std::nullopt, tool);
    OpenItem open = locker.unlock(locker.lock(home + "/Taxes", kPassword, 1).lastKnownPath,
                                  kPassword);
    auto mounted = [&] {
        auto mounts = MountTable::read();
        return std::any_of(mounts.begin(), mounts.end(), [&](const MountEntry& mount) {
            return mount.mountPoint == open.mountPoint;
        });
    };
    int held = ::open((open.contentURL() + "/notes 日本.txt").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(held, 0);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    EXPECT_TRUE(mounted()) << "closed under an open file";
    close(held);
    for (int tenths = 0; tenths < 200 && mounted(); ++tenths)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(mounted()) << "still open, unused";
}


}  // namespace
}  // namespace corvane
