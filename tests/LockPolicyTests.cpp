#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "FileSystem/ItemFacts.h"
#include "FileSystem/LockPolicy.h"
#include "FileSystem/MountTable.h"
#include "Records/Paths.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::TempDir;
using testing::writeFile;

// A home folder with the usual furniture, a private mounts root inside ~/.local, and an install
// location elsewhere.
class LockPolicyOnDisk : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* folder :
             {"home/Desktop", "home/Documents/Taxes", "home/Downloads", "home/Projects",
              "home/.config/app", "home/.local/share/corvane/Open/Taxes", "home/.cache/x",
              "home/Tools.APP/Contents", "home/Archive.sparsebundle/bands",
              "home/.corvane-0F4A.partial.sparsebundle", "home/Old.corvlock", "opt/Corvane/bin"})
            std::filesystem::create_directories(root / folder);
        writeFile(root / "home/Projects/plan.txt", "plan");
        writeFile(root / "home/Game.AppImage", "elf");
        symlink((root / "home/Projects").c_str(), (root / "home/Link to Projects").c_str());
        symlink((root / "home").c_str(), (root / "home-link").c_str());
        symlink((root / "home/gone").c_str(), (root / "home/Dangling").c_str());
    }

    std::optional<LockRefusal> refusalOf(const std::string& path) const {
        return policy().refusal(path, ItemFacts::inspect(path));
    }

    LockPolicy policy() const {
        return LockPolicy(root / "home", root / "home/.local/share/corvane/Open",
                          root / "opt/Corvane");
    }

    TempDir root;
};

TEST_F(LockPolicyOnDisk, RefusalsOnRealPaths) {
    const std::string home = root / "home";
    const std::pair<std::string, std::optional<LockRefusal>> rows[] = {
        {home + "/Projects", std::nullopt},
        {home + "/Projects/plan.txt", std::nullopt},
        {home + "/Documents/Taxes", std::nullopt},
        {home + "/Nothing here", LockRefusal::doesNotExist},
        {home + "/Link to Projects", LockRefusal::shortcut},
        {home + "/Dangling", LockRefusal::shortcut},
        {home, LockRefusal::homeFolder},
        {home + "/Projects/..", LockRefusal::homeFolder},
        {root / "home-link", LockRefusal::shortcut},
        {root / "home-link/Documents", LockRefusal::standardFolder},
        {home + "/Projects/../Downloads", LockRefusal::standardFolder},
        {home + "/Desktop", LockRefusal::standardFolder},
        {home + "/.config", LockRefusal::libraryFolder},
        {home + "/.config/app", LockRefusal::libraryFolder},
        {home + "/.cache/x", LockRefusal::libraryFolder},
        {home + "/.local/share/corvane", LockRefusal::libraryFolder},
        {home + "/.local/share/corvane/Open", LockRefusal::insideUnlockedItem},
        {home + "/.local/share/corvane/Open/Taxes", LockRefusal::insideUnlockedItem},
        {root / "opt/Corvane", LockRefusal::corvaneItself},
        {root / "opt/Corvane/bin", LockRefusal::corvaneItself},
        {home + "/Tools.APP", LockRefusal::application},
        {home + "/Tools.APP/Contents", LockRefusal::application},
        {home + "/Game.AppImage", LockRefusal::application},
        {home + "/Archive.sparsebundle/bands", LockRefusal::insideLockedItem},
        {home + "/Old.corvlock", LockRefusal::alreadyLocked},
        {home + "/.corvane-0F4A.partial.sparsebundle", LockRefusal::alreadyLocked},
    };
    for (const auto& [path, expected] : rows) EXPECT_EQ(refusalOf(path), expected) << path;
}

TEST_F(LockPolicyOnDisk, StandardFoldersFollowTheDesktopSettings) {
    std::filesystem::create_directories(root / "home/Dokumente");
    std::filesystem::create_directories(root / "elsewhere/Downloads");
    writeFile(root / "home/.config/user-dirs.dirs",
              "# written by xdg-user-dirs-update\n"
              "XDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n"
              "XDG_DOWNLOAD_DIR=\"" +
                  (root / "elsewhere/Downloads") +
                  "\"\n"
                  "XDG_DESKTOP_DIR=\"$HOME\"\n");
    EXPECT_EQ(refusalOf(root / "home/Dokumente"), LockRefusal::standardFolder);
    EXPECT_EQ(refusalOf(root / "home/Documents"), std::nullopt) << "no longer the documents folder";
    EXPECT_EQ(refusalOf(root / "elsewhere/Downloads"), LockRefusal::standardFolder);
    EXPECT_EQ(refusalOf(root / "home/Desktop"), std::nullopt);
    EXPECT_EQ(refusalOf(root / "home"), LockRefusal::homeFolder)
        << "a desktop set to the home folder";
}

TEST(LockPolicy, SystemLocationsAndFacts) {
    TempDir scratch;
    LockPolicy policy(scratch / "home", "/var/lib/corvane-open", std::nullopt);
    ItemFacts present{true, false, false, false, 4096};
    const std::pair<const char*, std::optional<LockRefusal>> rows[] = {
        {"/", LockRefusal::systemLocation},
        {"/home", LockRefusal::systemLocation},
        {"/media", LockRefusal::systemLocation},
        {"/mnt", LockRefusal::systemLocation},
        {"/run/media", LockRefusal::systemLocation},
        {"/tmp", LockRefusal::systemLocation},
        {"/var/tmp", LockRefusal::systemLocation},
        {"/usr", LockRefusal::systemLocation},
        {"/usr/local/share", LockRefusal::systemLocation},
        {"/etc/ssh", LockRefusal::systemLocation},
        {"/var/log", LockRefusal::systemLocation},
        {"/run/user", LockRefusal::systemLocation},
        {"/usrdata", std::nullopt},
        {"/home/someone/Projects", std::nullopt},
        {"/media/USB/Photos", std::nullopt},
        {"/run/media/alice/USB/Photos", std::nullopt},
        {"/var/tmp/build", std::nullopt},
        {"/tmp/report.pdf", std::nullopt},
        {"/var/lib/corvane-open/Taxes", LockRefusal::insideUnlockedItem},
    };
    for (const auto& [path, expected] : rows)
        EXPECT_EQ(policy.refusal(path, present), expected) << path;

    auto with = [&](auto change) {
        ItemFacts facts = present;
        change(facts);
        return policy.refusal("/run/media/alice/USB", facts);
    };
    EXPECT_EQ(with([](ItemFacts& f) { f.isVolumeRoot = true; }), LockRefusal::volumeRoot);
    EXPECT_EQ(with([](ItemFacts& f) { f.isVolumeRoot = f.isNetworkVolume = true; }),
              LockRefusal::networkVolume);
    EXPECT_EQ(with([](ItemFacts& f) { f.size = LockPolicy::maxBytes; }), std::nullopt);
    EXPECT_EQ(with([](ItemFacts& f) { f.size = LockPolicy::maxBytes + 1; }), LockRefusal::tooLarge);
    EXPECT_EQ(with([](ItemFacts& f) { f.exists = false, f.isSymlink = true; }),
              LockRefusal::doesNotExist);
    EXPECT_EQ(policy.refusal("/var/log", {true, true, false, false, 0}), LockRefusal::shortcut)
        << "a link is a shortcut wherever it stands";
}

TEST(ItemFacts, InspectRealItems) {
    TempDir root;
    writeFile(root / "tree/a.bin", std::string(10000, 'a'));
    writeFile(root / "tree/sub/b.bin", std::string(5000, 'b'));
    writeFile(root / "tree/empty", "");
    symlink("a.bin", (root / "tree/link").c_str());

    ItemFacts tree = ItemFacts::inspect(root / "tree");
    EXPECT_TRUE(tree.exists);
    EXPECT_FALSE(tree.isSymlink || tree.isVolumeRoot || tree.isNetworkVolume);
    EXPECT_EQ(tree.size, ItemFacts::allocatedSize(root / "tree/a.bin") +
                             ItemFacts::allocatedSize(root / "tree/sub/b.bin"));
    EXPECT_GT(tree.size, 0);
    EXPECT_EQ(ItemFacts::logicalSize(root / "tree"), 15000) << "links and folders add nothing";
    EXPECT_EQ(ItemFacts::logicalSize(root / "tree/a.bin"), 10000);

    EXPECT_EQ(ItemFacts::inspect(root / "tree/link"), (ItemFacts{true, true, false, false, 0}));
    EXPECT_EQ(ItemFacts::inspect(root / "missing"), ItemFacts{});
    EXPECT_EQ(ItemFacts::allocatedSize(root / "missing"), 0);
    EXPECT_TRUE(ItemFacts::inspect("/dev/pts").isVolumeRoot) << "a small real mount point";
    EXPECT_FALSE(ItemFacts::inspect("/dev/pts/ptmx").isVolumeRoot);
}

TEST(ItemFacts, UnreadablePartsAsAnOrdinaryUser) {
    TempDir root;
    writeFile(root / "tree/open.bin", std::string(8192, 'o'));
    writeFile(root / "tree/private/secret.bin", std::string(8192, 's'));
    writeFile(root / "closed/item", "x");
    chmod((root / "tree/private").c_str(), 0700);
    chmod((root / "closed").c_str(), 0700);

    std::int64_t visible = ItemFacts::logicalSize(root / "tree/open.bin");
    EXPECT_EQ(ItemFacts::logicalSize(root / "tree"), 2 * visible)
        << "root reads the private folder";
    std::string tree = root / "tree", hidden = root / "closed/item";
    EXPECT_TRUE(testing::passesAsUnprivilegedUser([&] {
        return ItemFacts::logicalSize(tree) == visible &&
               ItemFacts::inspect(hidden) == ItemFacts{} &&
               LockPolicy("/nonexistent", "/nonexistent/Open", std::nullopt)
                       .refusal(hidden, ItemFacts::inspect(hidden)) == LockRefusal::doesNotExist;
    })) << "the walk goes past the unreadable folder; an unreachable item does not exist";
}

TEST(Paths, RealPathResolvesTheDeepestExistingAncestor) {
    TempDir root;
    std::filesystem::create_directories(root / "a/real");
    std::filesystem::create_directories(root / "b/c");
    symlink((root / "a/real").c_str(), (root / "a/link").c_str());
    symlink((root / "b/c").c_str(), (root / "a/elsewhere").c_str());

    EXPECT_EQ(realPath(root / "a/link"), root / "a/real");
    EXPECT_EQ(realPath(root / "a/link/missing/deeper"), root / "a/real/missing/deeper");
    EXPECT_EQ(realPath(root / "a//real/./x/../"), root / "a/real");
    EXPECT_EQ(realPath(root / "a/elsewhere/.."), root / "b")
        << "\"..\" goes where the kernel goes: links are resolved first";
    EXPECT_EQ(itemPath(root / "a/elsewhere/../c"), root / "b/c");
    EXPECT_EQ(itemPath(root / "a/link/"), root / "a/link") << "a trailing slash keeps the link";
    EXPECT_EQ(itemPath(root / "a/real/."), root / "a/real");
    EXPECT_EQ(canonicalPath(root / "a/link/missing/../x"), root / "a/real/x");
    EXPECT_EQ(realPath("/"), "/");
    EXPECT_EQ(realPath("/.."), "/");
    EXPECT_EQ(realPath("/nonexistent-top/x"), "/nonexistent-top/x");

    std::string cwd = std::filesystem::current_path();
    std::filesystem::current_path(root / "a");
    EXPECT_EQ(realPath("link/file"), root / "a/real/file");
    std::filesystem::current_path(cwd);

    EXPECT_EQ(pathComponents("/a/b c/d"), (std::vector<std::string>{"/", "a", "b c", "d"}));
    EXPECT_EQ(lastPathComponent("/"), "");
}

TEST(MountTable, ParsesMountinfoLines) {
    auto mounts = MountTable::parse(
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 22 0:45 / /home/a/My\\040Drive rw,nosuid shared:20 master:3 - fuse.sshfs a@host:/ rw\n"
        "41 22 0:46 / /home/a/.local/share/corvane/Open/\\346\\227\\245 rw - fuse.gocryptfs /home/a/X.corvlock rw\n"
        "garbage line\n");
    ASSERT_EQ(mounts.size(), 3u);
    EXPECT_EQ(mounts[1].mountPoint, "/home/a/My Drive");
    EXPECT_EQ(mounts[1].fileSystemType, "fuse.sshfs");
    EXPECT_EQ(mounts[1].device, makedev(0, 45));
    EXPECT_EQ(mounts[2].mountPoint, "/home/a/.local/share/corvane/Open/\xE6\x97\xA5");
    EXPECT_EQ(mounts[2].source, "/home/a/X.corvlock");

    EXPECT_EQ(
        MountTable::containing(mounts, "/home/a/My Drive/doc", makedev(0, 45))->fileSystemType,
        "fuse.sshfs");
    EXPECT_EQ(MountTable::containing(mounts, "/home/a/My Drivel", makedev(8, 1))->fileSystemType,
              "ext4");
    EXPECT_FALSE(MountTable::containing(mounts, "/home/a/My Drivel", makedev(0, 45)));
    EXPECT_EQ(MountTable::unescape("a\\134b\\12"), "a\\b\\12") << "only whole three-digit escapes";
}

}  // namespace
}  // namespace corvane
