// The locking engine end to end, on real files with real gocryptfs images.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Engine/Locker.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "LockerFixture.h"
#include "Records/CorvaneError.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::BackgroundProcess;
using testing::listing;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;
using Names = std::vector<std::string>;

const std::string kPassword = "locker test password";

using LockerTest = testing::LockerFixture;

TEST_F(LockerTest, FolderLocksOpensClosesAndRestoresIdentical) {
    Locker locker = makeLocker();
    std::vector<LockStep> steps;
    LockedItem item = locker.lock(home + "/Taxes", kPassword, 1, nullptr,
                                  [&](LockStep s) { steps.push_back(s); });

    EXPECT_EQ(steps,
              (std::vector<LockStep>{LockStep::preparing, LockStep::encrypting, LockStep::verifying,
                                     LockStep::removingOriginal, LockStep::finishing}));
    EXPECT_EQ(listing(home), Names{"Taxes.corvlock"});
    EXPECT_EQ(item.lastKnownPath, home + "/Taxes.corvlock");
    EXPECT_EQ(item.stage, LockedItem::Stage::complete);
    EXPECT_EQ(item.contentSize, 300005);
    EXPECT_EQ(locker.index.load(), std::vector<LockedItem>{item});
    EXPECT_TRUE(locker.journal.load().empty());
    EXPECT_TRUE(listing(locker.mountsRoot).empty());

    OpenItem open = locker.unlock(item.lastKnownPath, kPassword);
    EXPECT_EQ(open.name, "Taxes");
    EXPECT_EQ(readFile(open.contentURL() + "/notes 日本.txt"), "notes");
    EXPECT_EQ(locker.openItems(), std::vector<OpenItem>{open});
    EXPECT_EQ(locker.unlock(item.lastKnownPath, kPassword), open)
        << "opening an open item changes nothing";
    locker.relock(open, false);
    EXPECT_TRUE(locker.openItems().empty());
    EXPECT_FALSE(std::filesystem::exists(open.mountPoint));

    steps.clear();
    std::string restored = locker.removeLock(item.lastKnownPath, kPassword, nullptr,
                                             [&](LockStep s) { steps.push_back(s); });
    EXPECT_EQ(restored, home + "/Taxes");
    EXPECT_EQ(steps, (std::vector<LockStep>{LockStep::restoring, LockStep::finishing}));
    EXPECT_TRUE(sameAsPristine(restored));
    EXPECT_EQ(listing(home), Names{"Taxes"});
    EXPECT_TRUE(locker.index.load().empty());
    EXPECT_TRUE(locker.journal.load().empty());
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

        OpenItem open = locker.unlock(item.lastKnownPath, kPassword);
        EXPECT_EQ(open.contentURL(), open.mountPoint + "/" + base + ".pdf");
        EXPECT_EQ(readFile(open.contentURL()), "report v1");
        locker.relock(open, false);

        writeFile(original, "a newer report");
        EXPECT_EQ(locker.removeLock(item.lastKnownPath, kPassword), home + "/" + restored);
        EXPECT_EQ(readFile(home + "/" + restored), "report v1");
        EXPECT_EQ(readFile(original), "a newer report");
    }
}

// Paths as a shell gives them: relative to the working folder, with a trailing slash from
// completion. Each names the one item and is recorded whole.
TEST_F(LockerTest, RelativePathsAndTrailingSlashesNameTheSameItem) {
    Locker locker = makeLocker();
    struct WorkingFolder {
        std::filesystem::path saved = std::filesystem::current_path();
        ~WorkingFolder() { std::filesystem::current_path(saved); }
    } restoredAtTheEnd;
    std::filesystem::current_path(home);
    LockedItem item = locker.lock("Taxes/", kPassword, 1);
    EXPECT_EQ(item.lastKnownPath, home + "/Taxes.corvlock");

    // Its record lost, as for an item locked on another computer: unlocking adopts it.
    locker.index.save({});
    OpenItem open = locker.unlock("Taxes.corvlock/", kPassword);
    EXPECT_EQ(open.lockedURL, home + "/Taxes.corvlock");
    auto records = locker.index.load();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].lastKnownPath, home + "/Taxes.corvlock");
    EXPECT_EQ(locker.unlock(home + "/Taxes.corvlock", kPassword), open) << "adopted twice";
    locker.relock(open, false);

    EXPECT_EQ(locker.removeLock("./Taxes.corvlock/", kPassword), home + "/Taxes");
    EXPECT_TRUE(sameAsPristine(home + "/Taxes"));
    EXPECT_TRUE(locker.index.load().empty());
}

}  // namespace
}  // namespace corvane
