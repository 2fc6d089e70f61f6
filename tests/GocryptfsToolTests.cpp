// The Linux image tool against real gocryptfs and FUSE mounts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/ProcessRunner.h"
#include "Records/CorvaneError.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::BackgroundProcess;
using testing::errorFrom;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;

class GocryptfsToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        tool.busyPause = std::chrono::milliseconds(20);
        std::filesystem::create_directories(mountPoint);
    }

    // Nothing may stay mounted under the temporary folder, or it could not be removed.
    void TearDown() override {
        for (const auto& image : tool.attachedImages())
            if (image.mountPoint.starts_with(root.path() + "/"))
                ProcessRunner::run("/usr/bin/fusermount3", {"-u", "-z", image.mountPoint});
    }

    // Other tests mount images at the same time; only this test's count.
    std::vector<AttachedImage> attachedHere() const {
        std::vector<AttachedImage> mine;
        for (const auto& image : tool.attachedImages())
            if (image.imagePath.starts_with(root.path() + "/")) mine.push_back(image);
        return mine;
    }

    TempDir root;
    GocryptfsTool tool;
    std::string image = root / ".corvane-7C2E9D41.partial.sparsebundle";
    std::string mountPoint = root / "Open/Grüße 日本 x";
};

TEST_F(GocryptfsToolTest, CreateAttachWriteDetachReadOnly) {
    const std::string password = "correct horse \"battery\" stäple";
    tool.create(image, "Taxes", password);
    EXPECT_EQ(testing::permissions(image), 0700u);
    EXPECT_TRUE(std::filesystem::exists(image + "/gocryptfs.conf"));

    tool.attach(image, mountPoint, password, false);
    EXPECT_EQ(attachedHere(), (std::vector<AttachedImage>{{image, mountPoint}}))
        << "spaces and non-Latin letters come back unescaped";
    writeFile(mountPoint + "/Sub/notes.txt", "secret notes");
    tool.detach(mountPoint, false);
    EXPECT_TRUE(attachedHere().empty());
    EXPECT_FALSE(std::filesystem::exists(mountPoint + "/Sub"));

    tool.attach(image, mountPoint, password, true);
    EXPECT_EQ(readFile(mountPoint + "/Sub/notes.txt"), "secret notes");
    EXPECT_LT(open((mountPoint + "/new.txt").c_str(), O_WRONLY | O_CREAT, 0600), 0);
    EXPECT_EQ(errno, EROFS);
    tool.detach(mountPoint, false);
}

TEST_F(GocryptfsToolTest, PasswordsAreCheckedAndChanged) {
    tool.create(image, "Taxes", "first password");
    EXPECT_EQ(errorFrom([&] { tool.attach(image, mountPoint, "wrong password", false); }),
              CorvaneError::wrongPassword());
    EXPECT_TRUE(attachedHere().empty());

    writeFile(image + "/gocryptfs.conf.tmp", "left by an interrupted change");
    tool.changePassword(image, "first password", "second password");
    EXPECT_EQ(errorFrom([&] { tool.changePassword(image, "first password", "third"); }),
              CorvaneError::wrongPassword());
    EXPECT_EQ(errorFrom([&] { tool.attach(image, mountPoint, "first password", false); }),
              CorvaneError::wrongPassword());
    tool.attach(image, mountPoint, "second password", false);
    tool.detach(mountPoint, false);
}

TEST_F(GocryptfsToolTest, PasswordsItCannotTakeAreRefusedBeforeAnythingIsMade) {
    const std::pair<std::string, std::string> rows[] = {
        {"two\nlines", "a password cannot contain a line break."},
        {"ends with a line break\n", "a password cannot contain a line break."},
        {"carriage\rreturn", "a password cannot contain a line break."},
        {"", "an empty password cannot protect a locked item."},
        {std::string(2049, 'x'), "a password cannot be longer than 2048 bytes."},
    };
    for (const auto& [password, problem] : rows) {
        EXPECT_EQ(errorFrom([&] { tool.create(image, "Taxes", password); }),
                  CorvaneError::diskImage(problem));
        EXPECT_FALSE(std::filesystem::exists(image)) << problem;
    }
    tool.create(image, "Taxes", std::string(2048, 'x'));
    tool.attach(image, mountPoint, std::string(2048, 'x'), false);
    tool.detach(mountPoint, false);
}

TEST_F(GocryptfsToolTest, PasswordsNeverReachArgumentsOrEnvironment) {
    // A wrapper that records what its own process was given, then becomes gocryptfs.
    std::string wrapper = root / "gocryptfs-wrapper";
    writeFile(wrapper, "#!/bin/sh\ncat /proc/$$/cmdline /proc/$$/environ >> \"" + (root / "seen") +
                           "\"\nexec /usr/bin/gocryptfs \"$@\"\n");
    chmod(wrapper.c_str(), 0755);
    GocryptfsTool wrapped(wrapper);
    const std::string password = "hunter2-\xE2\x9C\x93-unique";
    wrapped.create(image, "Taxes", password);
    wrapped.attach(image, mountPoint, password, false);
    wrapped.changePassword(image, password, password + "-new");
    tool.detach(mountPoint, false);

    std::string seen = readFile(root / "seen");
    EXPECT_NE(seen.find(image), std::string::npos) << "the wrapper ran";
    EXPECT_EQ(seen.find("hunter2"), std::string::npos);
}

TEST_F(GocryptfsToolTest, BusyVolumeNamesTheWriterAfterThreeTries) {
    tool.create(image, "Taxes", "password 1");
    tool.attach(image, mountPoint, "password 1", false);
    writeFile(mountPoint + "/draft.txt", "v1");
    BackgroundProcess writer(
        {"/bin/sh", "-c", "exec 3>>\"$1\"; exec /bin/sleep 60", "sh", mountPoint + "/draft.txt"});
    ASSERT_TRUE(writer.waitUntilHolding(mountPoint + "/draft.txt"));

    EXPECT_EQ(errorFrom([&] { tool.detach(mountPoint, false); }), CorvaneError::inUse({"sleep"}));
    EXPECT_EQ(attachedHere().size(), 1u) << "still attached";
}

TEST_F(GocryptfsToolTest, OnlySystemIndexersAreEjectedByForce) {
    tool.create(image, "Taxes", "password 1");
    tool.attach(image, mountPoint, "password 1", false);
    writeFile(mountPoint + "/photo.jpg", "jpeg");
    // A program borrowing an indexer's name; lsof calls it tracker-miner-f.
    std::filesystem::copy_file("/bin/sleep", root / "tracker-miner-fs-3");
    BackgroundProcess reader({"/bin/sh", "-c", "exec 3<\"$1\"; exec \"$2\" 60", "sh",
                              mountPoint + "/photo.jpg", root / "tracker-miner-fs-3"});
    ASSERT_TRUE(reader.waitUntilHolding(mountPoint + "/photo.jpg"));

    EXPECT_EQ(errorFrom([&] { tool.detach(mountPoint, false); }), CorvaneError::inUse({}))
        << "its program lies in a temporary folder, and allow-listed names are not named";

    tool.executablePathOf = [](pid_t) -> std::optional<std::string> {
        return "/usr/libexec/tracker-miner-fs-3";
    };
    tool.detach(mountPoint, false);
    EXPECT_TRUE(attachedHere().empty());
}

TEST_F(GocryptfsToolTest, ForcedDetachLeavesNothingReadable) {
    tool.create(image, "Taxes", "password 1");
    tool.attach(image, mountPoint, "password 1", false);
    writeFile(mountPoint + "/secret.txt", "plaintext");
    int fd = open((mountPoint + "/secret.txt").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char buffer[32] = {};
    ASSERT_EQ(read(fd, buffer, sizeof buffer), 9) << "read once, so the kernel has it cached";

    tool.detach(mountPoint, true);
    EXPECT_TRUE(attachedHere().empty());
    EXPECT_EQ(pread(fd, buffer, sizeof buffer, 0), -1)
        << "what was read before must not be readable again";
    EXPECT_EQ(errno, ENOTCONN);
    close(fd);

    tool.attach(image, mountPoint, "password 1", false);
    EXPECT_EQ(readFile(mountPoint + "/secret.txt"), "plaintext") << "the image itself is intact";
    tool.detach(mountPoint, false);
}

TEST(GocryptfsTool, CleanDropsSyslogNoise) {
    EXPECT_EQ(GocryptfsTool::clean("SwitchToSyslog: Unix syslog delivery error\n"
                                   "fatal: maximum password length of 2048 bytes exceeded\n"
                                   "SwitchLoggerToSyslog: Unix syslog delivery error\n\n"),
              "fatal: maximum password length of 2048 bytes exceeded");
    EXPECT_EQ(GocryptfsTool::clean("Invalid mountpoint:\n  directory /a not empty \n"),
              "Invalid mountpoint:   directory /a not empty");
}

}  // namespace
}  // namespace corvane
