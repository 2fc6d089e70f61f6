// Reading the mount table: as /proc gives it, whole or not at all.
#include <gtest/gtest.h>

#include <sys/sysmacros.h>

#include <cerrno>
#include <system_error>

#include "FileSystem/MountTable.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::TempDir;
using testing::writeFile;

// The error code and text that MountTable::read ends with, or nothing when it succeeds.
std::optional<std::pair<int, std::string>> readFailure(const std::string& path) {
    try {
        MountTable::read(path);
    } catch (const std::system_error& error) {
        return std::pair{error.code().value(), std::string(error.what())};
    }
    return std::nullopt;
}

TEST(MountTable, ParsesMountinfoLines) {
    auto mounts = MountTable::parse(
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 22 0:45 / /home/a/My\\040Drive rw,nosuid shared:20 master:3 - fuse.sshfs a@host:/ rw\n"
        "41 22 0:46 / /home/a/Open/\\346\\227\\245 rw - fuse.gocryptfs /home/a/X\\040Y.corvlock rw\n"
        "garbage line\n");
    EXPECT_EQ(
        mounts,
        (std::vector<MountEntry>{
            {makedev(8, 1), "/", "ext4", "/dev/sda1"},
            {makedev(0, 45), "/home/a/My Drive", "fuse.sshfs", "a@host:/"},
            {makedev(0, 46), "/home/a/Open/\xE6\x97\xA5", "fuse.gocryptfs", "/home/a/X Y.corvlock"},
        }))
        << "a field misplaced, left escaped, or the garbage line kept";
    EXPECT_EQ(MountTable::unescape("a\\134b\\12"), "a\\b\\12") << "only whole three-digit escapes";

    EXPECT_EQ(
        MountTable::containing(mounts, "/home/a/My Drive/doc", makedev(0, 45))->fileSystemType,
        "fuse.sshfs");
    EXPECT_EQ(MountTable::containing(mounts, "/home/a/My Drivel", makedev(8, 1))->fileSystemType,
              "ext4")
        << "the root mount holds what its device holds";
    EXPECT_FALSE(MountTable::containing(mounts, "/home/a/My Drivel", makedev(0, 45)))
        << "a name prefix is not a parent folder";
}

TEST(MountTable, ReadsTablesToTheirEnd) {
    auto live = MountTable::read();
    ASSERT_FALSE(live.empty()) << "a /proc file says its size is 0; it is read to the end";
    EXPECT_TRUE(std::any_of(live.begin(), live.end(),
                            [](const MountEntry& mount) { return mount.mountPoint == "/"; }));

    TempDir root;
    std::string table;
    for (int line = 0; line < 3000; ++line)
        table += "40 22 0:45 / /mnt/m" + std::to_string(line) + " rw - fuse.gocryptfs /c rw\n";
    writeFile(root / "mountinfo", table);
    auto mounts = MountTable::read(root / "mountinfo");
    ASSERT_EQ(mounts.size(), 3000u);
    EXPECT_EQ(mounts.back().mountPoint, "/mnt/m2999");
}

TEST(MountTable, UnreadableTableIsAnErrorNamingItsPath) {
    TempDir root;
    auto sized = [&](const char* name, off_t size) {
        writeFile(root / name, "");
        EXPECT_EQ(truncate((root / name).c_str(), size), 0);
        return root / name;
    };
    const std::pair<std::string, int> rows[] = {
        {root / "missing", ENOENT},
        {root.path(), EISDIR},
        {sized("too-long", MountTable::maximumBytes + 1), EFBIG},
        {sized("at-the-cap", MountTable::maximumBytes), 0},
    };
    for (const auto& [path, code] : rows) {
        auto failure = readFailure(path);
        EXPECT_EQ(failure ? failure->first : 0, code) << path;
        if (failure) {
            EXPECT_TRUE(failure->second.starts_with(path + ": ")) << failure->second;
        }
    }

    writeFile(root / "unreadable", "22 1 8:1 / / rw - ext4 /dev/sda1 rw\n");
    chmod((root / "unreadable").c_str(), 0);
    EXPECT_TRUE(testing::passesAsUnprivilegedUser([&] {
        auto failure = readFailure(root / "unreadable");
        return failure && failure->first == EACCES;
    })) << "a table this user may not read is an error, not an empty table";
}

}  // namespace
}  // namespace corvane
