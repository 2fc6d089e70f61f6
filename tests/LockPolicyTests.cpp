// Which items may be locked, on real paths and from given facts; the facts and paths it relies on.
#include <gtest/gtest.h>

#include <tuple>

#include "FileSystem/ItemFacts.h"
#include "FileSystem/LockPolicy.h"
#include "Records/Paths.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::TempDir;
using testing::writeFile;

// A home folder with the usual furniture, a private mounts root inside ~/.local, records kept in
// a synced folder, and an install location elsewhere.
class LockPolicyOnDisk : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* folder :
             {"home/Desktop", "home/Documents/Taxes", "home/Downloads", "home/Projects",
              "home/.config/app", "home/.local/share/corvane/Open/Taxes", "home/.cache/x",
              "home/Tools.APP/Contents", "home/Archive.sparsebundle/bands",
              "home/.corvane-0F4A.partial.sparsebundle", "home/Old.corvlock", "opt/Corvane/bin",
              "home/Sync/corvane/Open", "home/Sync/corvane-old"})
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
                          root / "opt/Corvane", root / "home/Sync/corvane");
    }

    TempDir root;
};

TEST_F(LockPolicyOnDisk, RefusalsOnRealPaths) {
    const std::string home = root / "home";
    const std::string open = home + "/.local/share/corvane/Open";
    const std::pair<std::optional<LockRefusal>, std::vector<std::string>> rows[] = {
        {std::nullopt, {home + "/Projects", home + "/Projects/plan.txt", home + "/Documents/Taxes",
                        home + "/Sync/corvane-old"}},
        {LockRefusal::doesNotExist, {home + "/Nothing here"}},
        {LockRefusal::shortcut,
         {home + "/Link to Projects", home + "/Dangling", root / "home-link"}},
        {LockRefusal::homeFolder, {home, home + "/Projects/.."}},
        {LockRefusal::standardFolder,
         {root / "home-link/Documents", home + "/Projects/../Downloads", home + "/Desktop"}},
        {LockRefusal::libraryFolder, {home + "/.config", home + "/.config/app", home + "/.cache/x",
                                      home + "/.local/share/corvane"}},
        {LockRefusal::insideUnlockedItem, {open, open + "/Taxes"}},
        {LockRefusal::corvaneItself, {root / "opt/Corvane", root / "opt/Corvane/bin"}},
        {LockRefusal::corvaneRecords, {home + "/Sync", home + "/Sync/corvane",
                                       home + "/Sync/corvane/Open", root / "home-link/Sync"}},
        {LockRefusal::application,
         {home + "/Tools.APP", home + "/Tools.APP/Contents", home + "/Game.AppImage"}},
        {LockRefusal::insideLockedItem, {home + "/Archive.sparsebundle/bands"}},
        {LockRefusal::alreadyLocked,
         {home + "/Old.corvlock", home + "/.corvane-0F4A.partial.sparsebundle"}},
    };
    for (const auto& [expected, paths] : rows)
        for (const auto& path : paths) EXPECT_EQ(refusalOf(path), expected) << path;
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
    for (const char* path : {"/", "/home", "/media", "/mnt", "/run/media", "/tmp", "/var/tmp",
                             "/usr", "/usr/local/share", "/etc/ssh", "/var/log", "/run/user"})
        EXPECT_EQ(policy.refusal(path, present), LockRefusal::systemLocation) << path;
    for (const char* path : {"/usrdata", "/home/someone/Projects", "/media/USB/Photos",
                             "/run/media/alice/USB/Photos", "/var/tmp/build", "/tmp/report.pdf"})
        EXPECT_EQ(policy.refusal(path, present), std::nullopt) << path;
    EXPECT_EQ(policy.refusal("/var/lib/corvane-open/Taxes", present),
              LockRefusal::insideUnlockedItem);

    const auto maxBytes = LockPolicy::maxBytes;
    const std::tuple<const char*, ItemFacts, std::optional<LockRefusal>> facts[] = {
        {"volume root", {true, false, true, false, 4096}, LockRefusal::volumeRoot},
        {"network volume root", {true, false, true, true, 4096}, LockRefusal::networkVolume},
        {"at the size limit", {true, false, false, false, maxBytes}, std::nullopt},
        {"over the size limit", {true, false, false, false, maxBytes + 1}, LockRefusal::tooLarge},
        {"missing, though a link", {false, true, false, false, 0}, LockRefusal::doesNotExist},
    };
    for (const auto& [label, itemFacts, expected] : facts)
        EXPECT_EQ(policy.refusal("/run/media/alice/USB", itemFacts), expected)
            << "wrong refusal for an item " << label;
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

}  // namespace
}  // namespace corvane
