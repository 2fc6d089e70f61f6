// What the engine must never do, each tried on real files, mounts and gocryptfs images: delete
// what it did not verify, reach through a swapped folder or into another mount, lose a name it
// cannot decode or a file it did not expect, or leave plaintext or an open image behind.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Engine/Locker.h"
#include "LockerFixture.h"
#include "Records/ItemMarker.h"
#include "Records/Paths.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::errorFrom;
using testing::listing;
using testing::permissions;
using testing::readFile;
using testing::writeFile;
using Names = std::vector<std::string>;

const std::string kPassword = "locker safety password";

using LockerSafetyTest = testing::LockerFixture;
using Save = testing::LockerFixture::Save;

TEST_F(LockerSafetyTest, FolderSwappedForALinkMidwayLosesNothing) {
    const std::string project = home + "/shared/proj", victim = home + "/victim";
    std::filesystem::create_directories(project);
    std::filesystem::rename(home + "/Taxes", project + "/Taxes");
    makeSample(victim + "/Taxes");
    Locker locker = makeLocker();

    // As soon as the locked item appears, someone with write access above swaps the folder.
    testing::NameWatcher swapper(project, "Taxes.corvlock", [&] {
        std::filesystem::rename(project, project + ".old");
        std::filesystem::create_directory_symlink(victim, project);
    });
    bool swapped = false;
    locker.flushVolume = [&](const Folder& folder) {
        swapped = swapper.waitUntilDone();
        folder.synchronize();
    };

    auto error = errorFrom([&] { locker.lock(project + "/Taxes", kPassword, 1); });
    ASSERT_TRUE(swapped);
    ASSERT_TRUE(error);
    EXPECT_TRUE(*error == CorvaneError::lockedButOriginalRemains("Taxes"))
        << error->errorDescription();
    EXPECT_TRUE(sameAsPristine(victim + "/Taxes")) << "the other folder was touched";
    EXPECT_TRUE(sameAsPristine(project + ".old/Taxes")) << "the original went unconfirmed";
    EXPECT_EQ(listing(project + ".old"), (Names{"Taxes", "Taxes.corvlock"}));
}

// A program that saves into the item after its copy was proven, while the copy is checked or the
// instant the locked item appears, finds its save where it left it: the lock is taken back.
TEST_F(LockerSafetyTest, ASaveAfterTheCopyIsProvenIsNeverDeleted) {
    writeFile(home + "/report.txt", "report v1");
    struct Row {
        const char* what;
        bool file;
        bool whileChecking;
        Save save;
    };
    const Row rows[] = {
        {"an addition to a file inside, as the lock appears", false, false, Save::append},
        {"a file inside rewritten, its time put back, as the lock appears", false, false,
         Save::rewriteKeepingTime},
        {"a file inside held open for writing, as the lock appears", false, false,
         Save::holdForWriting},
        {"the file rewritten, its time put back, while it is checked", true, true,
         Save::rewriteKeepingTime},
        {"the file rewritten, its time put back, as the lock appears", true, false,
         Save::rewriteKeepingTime},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const std::string item = home + (row.file ? "/report.txt" : "/Taxes");
        const std::string target = row.file ? item : item + "/notes 日本.txt";
        const std::string expected = saved(row.save, readFile(target));
        Locker locker = makeLocker();
        std::optional<testing::NameWatcher> watcher;
        if (row.whileChecking)
            locker.afterVerify = [&] { save(row.save, target); };
        else
            watcher.emplace(home, row.file ? "report.corvlock" : "Taxes.corvlock",
                            [&] { save(row.save, target); });
        locker.flushVolume = [&](const Folder& folder) {
            if (watcher) {
                EXPECT_TRUE(watcher->waitUntilDone());
            }
            folder.synchronize();
        };

        auto error = errorFrom([&] { locker.lock(item, kPassword, 1); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->errorCase(), CorvaneError::Case::changedWhileLocking)
            << error->errorDescription();
        EXPECT_EQ(readFile(target), expected);
        expectSettled(locker, {"Taxes", "report.txt"}, std::vector<LockedItem>{});
        closeHeldFiles();
    }
}

TEST_F(LockerSafetyTest, DotDotGoesWhereTheKernelGoes) {
    std::filesystem::create_directories(home + "/wn/a/b");
    makeSample(home + "/wn/a/target");
    makeSample(home + "/wn/target");
    std::filesystem::create_directory_symlink(home + "/wn/a/b", home + "/wn/lnk");
    Locker locker = makeLocker();

    EXPECT_EQ(locker.lock(home + "/wn/lnk/../target", kPassword, 1).lastKnownPath,
              home + "/wn/a/target.corvlock");
    EXPECT_TRUE(sameAsPristine(home + "/wn/target"));
}

TEST_F(LockerSafetyTest, TreeRemovalOpensReadOnlyFoldersButStopsAtAMount) {
    makeSample(home + "/Kept");
    writeFile(home + "/Gone/closed/inner/file", "x");
    chmod((home + "/Gone/closed/inner").c_str(), 0);
    chmod((home + "/Gone/closed").c_str(), 0500);
    Locker::removeOwnedTree(home + "/Gone");
    EXPECT_FALSE(std::filesystem::exists(home + "/Gone"));

    writeFile(home + "/Work/own.txt", "own");
    if (!bindMount(home + "/Kept", home + "/Work/bound")) GTEST_SKIP() << "bind mounts need root";
    EXPECT_THROW(Locker::removeOwnedTree(home + "/Work"), std::system_error);
    EXPECT_TRUE(sameAsPristine(home + "/Kept")) << "the removal reached into a mount";
}

TEST_F(LockerSafetyTest, EveryNameAndEveryModeComesBackExactly) {
    const std::string item = home + "/Taxes";
    for (const char* name : {".DS_Store", ".Trashes/x", ".fseventsd/y", ".Spotlight-V100",
                             ".TemporaryItems", ".DocumentRevisions-V100", "R\xe9sum\xe9.txt",
                             "a\xff", "a\xEF\xBF\xBD", "line\nbreak", "back\\slash"})
        writeFile(item + "/" + name, std::string("content of ") + name);
    writeFile(item + "/closed/inner/secret.txt", "secret");
    chmod((item + "/closed/inner/secret.txt").c_str(), 0444);
    chmod((item + "/closed/inner").c_str(), 0500);
    chmod((item + "/closed").c_str(), 0555);
    chmod(item.c_str(), 0555);
    const bool keepsAttributes = setxattr(item.c_str(), "user.corvane-test", "kept", 4, 0) == 0;
    const struct timespec times[2] = {{1577836800, 0}, {1577836800, 0}};
    utimensat(AT_FDCWD, item.c_str(), times, 0);
    const std::string before = pristine + "/Before";
    ProcessRunner::run("/bin/cp", {"-a", item, before});
    Locker locker = makeLocker();

    LockedItem locked = locker.lock(item, kPassword, 1);
    EXPECT_EQ(permissions(locked.lastKnownPath), 0700u) << "others could list the encrypted tree";
    std::string restored = locker.removeLock(locked.lastKnownPath, kPassword);
    ASSERT_EQ(restored, item);
    for (const auto& mismatch : TreeVerifier::compare(before, restored, {}))
        ADD_FAILURE() << mismatch.description();
    for (const char* path : {"", "/closed", "/closed/inner", "/closed/inner/secret.txt"})
        EXPECT_EQ(permissions(restored + path), permissions(before + path)) << path;
    struct stat status {};
    ASSERT_EQ(stat(restored.c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1577836800);
    char value[16] = {};
    if (keepsAttributes) {
        EXPECT_EQ(getxattr(restored.c_str(), "user.corvane-test", value, sizeof value), 4);
        EXPECT_STREQ(value, "kept");
    }
}

TEST_F(LockerSafetyTest, ManyTopLevelEntriesRestore) {
    // Long names, so that a command line naming every entry would pass the kernel's limit.
    const std::string item = home + "/Many";
    std::filesystem::create_directories(item);
    for (int i = 0; i < 7000; ++i)
        writeFile(item + "/" + std::string(240, 'n') + std::to_string(i), "");
    Locker locker = makeLocker();
    LockedItem locked = locker.lock(item, kPassword, 1);
    std::string restored = locker.removeLock(locked.lastKnownPath, kPassword);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(restored), {}), 7000);
}

TEST_F(LockerSafetyTest, FilesAddedBesideALockedFileKeepItLocked) {
    writeFile(home + "/report.txt", "report");
    Locker locker = makeLocker();
    LockedItem item = locker.lock(home + "/report.txt", kPassword, 1);
    OpenItem open = locker.unlock(item.lastKnownPath, kPassword);
    writeFile(open.mountPoint + "/notes.txt", "added while open");
    locker.relock(open, false);

    auto error = errorFrom([&] { locker.removeLock(item.lastKnownPath, kPassword); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorDescription(),
              "Copying failed: besides report.txt, the locked item holds notes.txt, added while it "
              "was open, which would be lost. Unlock it, move that out, then try again. The item "
              "is still locked.");
    EXPECT_EQ(listing(home), (Names{"Taxes", "report.corvlock"}));
    EXPECT_EQ(locker.index.load(), std::vector<LockedItem>{item});
}

TEST_F(LockerSafetyTest, DamagedOrHostileImagesAreNeverRestoredOrFollowed) {
    Locker locker = makeLocker();
    writeFile(home + "/report.txt", "report");
    LockedItem file = locker.lock(home + "/report.txt", kPassword, 1);
    LockedItem folder = locker.lock(home + "/Taxes", kPassword, 1);
    const Names locked = listing(home);

    // A marker that is a FIFO is no marker: opening must not wait for a writer.
    OpenItem open = locker.unlock(folder.lastKnownPath, kPassword);
    unlink((open.mountPoint + "/.corvane-item.json").c_str());
    mkfifo((open.mountPoint + "/.corvane-item.json").c_str(), 0600);
    locker.relock(open, false);
    EXPECT_EQ(locker.unlock(folder.lastKnownPath, kPassword).name, "Taxes");
    locker.relock(locker.openItems().at(0), false);

    // A file item whose marker names a link to a folder elsewhere.
    open = locker.unlock(file.lastKnownPath, kPassword);
    std::filesystem::create_directory_symlink(home + "/Taxes.corvlock", open.mountPoint + "/x");
    unlink((open.mountPoint + "/.corvane-item.json").c_str());
    ItemMarker(LockedItem::Kind::file, "x").write(open.mountPoint);
    locker.relock(open, false);
    auto followed = errorFrom([&] { locker.removeLock(file.lastKnownPath, kPassword); });
    ASSERT_TRUE(followed);
    EXPECT_EQ(followed->errorCase(), CorvaneError::Case::diskImage) << followed->errorDescription();

    // A wrong password, then an image without its configuration (as a half-deleted one would
    // be): a failed attempt leaves no mount point behind, whatever stopped it.
    for (bool damaged : {false, true}) {
        if (damaged) std::filesystem::remove(folder.lastKnownPath + "/gocryptfs.conf");
        const std::string password = damaged ? kPassword : "not the password";
        for (bool restore : {false, true}) {
            auto error = errorFrom([&] {
                restore ? void(locker.removeLock(folder.lastKnownPath, password))
                        : void(locker.unlock(folder.lastKnownPath, password));
            });
            ASSERT_TRUE(error);
            EXPECT_EQ(error->errorCase(),
                      damaged ? CorvaneError::Case::diskImage : CorvaneError::Case::wrongPassword);
            EXPECT_TRUE(listing(locker.mountsRoot).empty()) << damaged << restore;
        }
    }
    expectSettled(locker, locked);
}

TEST_F(LockerSafetyTest, ARecordUnderAnotherItemsIdNeverActsOnIt) {
    Locker locker = makeLocker();
    makeSample(home + "/Second");
    LockedItem first = locker.lock(home + "/Taxes", kPassword, 1);
    LockedItem second = locker.lock(home + "/Second", kPassword, 1);
    // As a hand-edited or merged index would have it.
    LockedItem twin = second;
    twin.id = first.id;
    locker.index.save({first, twin});
    OpenItem open = locker.unlock(first.lastKnownPath, kPassword);

    EXPECT_EQ(locker.removeLock(second.lastKnownPath, kPassword), home + "/Second");
    EXPECT_EQ(locker.openItems(), std::vector<OpenItem>{open}) << "the other item was closed";
    EXPECT_EQ(locker.index.load(), std::vector<LockedItem>{first}) << "its record was dropped";
    auto kept = listing(support);
    EXPECT_EQ(std::count_if(kept.begin(), kept.end(),
                            [](auto& name) { return name.starts_with("items.json.damaged-"); }),
              1)
        << "the record file was not kept aside";
    locker.relock(open, false);
    EXPECT_TRUE(sameAsPristine(locker.removeLock(first.lastKnownPath, kPassword)));
}

TEST_F(LockerSafetyTest, AnImageThatCannotBeDeletedNeverKeepsItsName) {
    Locker locker = makeLocker();
    LockedItem item = locker.lock(home + "/Taxes", kPassword, 1);
    // A mount inside the image stops its deletion partway.
    if (!bindMount(pristine, item.lastKnownPath + "/zz")) GTEST_SKIP() << "bind mounts need root";

    EXPECT_THROW(locker.removeLock(item.lastKnownPath, kPassword), std::system_error);
    auto entries = locker.journal.load();
    ASSERT_EQ(entries.size(), 1u);
    const std::string deleting = home + "/.corvane-" + entries[0].id.string() + ".deleting";
    EXPECT_EQ(entries[0].deletingPath, deleting);
    EXPECT_EQ(listing(home), (Names{lastPathComponent(deleting), "Taxes"}));
    EXPECT_TRUE(sameAsPristine(home + "/Taxes"));
    EXPECT_EQ(readFile(pristine + "/Taxes/notes 日本.txt"), "notes") << "the deletion crossed";
}

}  // namespace
}  // namespace corvane
