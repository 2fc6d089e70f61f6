// The Linux image tool against real gocryptfs and FUSE mounts.
#include <gtest/gtest.h>

#include <sys/sysmacros.h>

#include <cstring>
#include <thread>
#include <tuple>

#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/MountTable.h"
#include "FileSystem/ProcessRunner.h"
#include "Records/CorvaneError.h"
#include "TestSupport.h"

namespace corvane {

static void PrintTo(const AttachedImage& image, std::ostream* out) {
    *out << "{" << ::testing::PrintToString(image.imagePath) << ", "
         << ::testing::PrintToString(image.mountPoint) << "}";
}

namespace {

using testing::errorFrom;
using testing::holdingFile;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;

// The gocryptfs process that serves `image`: it names the image on its command line and holds
// /dev/fuse open (the process that started it does not).
std::optional<pid_t> serverProcessOf(const std::string& image) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string folder = entry.path();
        pid_t pid = std::atoi(entry.path().filename().c_str());
        if (pid <= 0) continue;
        std::string arguments = readFile(folder + "/cmdline");
        if (arguments.find('\0' + image + '\0') == std::string::npos) continue;
        std::error_code ignored;
        for (const auto& fd : std::filesystem::directory_iterator(folder + "/fd", ignored))
            if (std::filesystem::read_symlink(fd.path(), ignored) == "/dev/fuse") return pid;
    }
    return std::nullopt;
}

// Whether `pid` has ended (a zombie serves nothing; whoever adopted it reaps it).
bool hasEnded(pid_t pid) {
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    auto close = stat.rfind(')');
    return close == std::string::npos || stat.compare(close, 4, ") Z ") == 0;
}

// Opens a FIFO for writing and closes it again every 200 ms until destroyed, so that a reader
// that opened it is never kept waiting.
std::jthread fifoUnblocker(std::string path) {
    return std::jthread([path](std::stop_token stop) {
        while (!stop.stop_requested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            struct stat status {};
            if (lstat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) continue;
            if (int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK); fd >= 0) close(fd);
        }
    });
}

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

    // A new image, attached at the fixture's mount point with a file already in it.
    void createAttached(const std::string& file) {
        tool.create(image, "Taxes", "password 1");
        tool.attach(image, mountPoint, "password 1", false);
        writeFile(mountPoint + "/" + file, "plaintext");
    }

    TempDir root;
    GocryptfsTool tool;
    std::string image = root / ".corvane-7C2E9D41.partial.sparsebundle";
    std::string mountPoint = root / "Open/Grüße 日本 x";
};

TEST_F(GocryptfsToolTest, CreateAttachRekeyReopenWithPasswordsOnlyOnInput) {
    // A wrapper that records what its own process was given, then becomes gocryptfs.
    std::string wrapper = root / "gocryptfs-wrapper";
    writeFile(wrapper, "#!/bin/sh\ncat /proc/$$/cmdline /proc/$$/environ >> \"" + (root / "seen") +
                           "\"\nexec /usr/bin/gocryptfs \"$@\"\n");
    chmod(wrapper.c_str(), 0755);
    GocryptfsTool wrapped(wrapper);
    const std::string password = "correct hunter2 \"battery\" stäple", changed = "hunter2 ✓";
    wrapped.create(image, "Taxes", password);
    EXPECT_EQ(testing::permissions(image), 0700u) << "the image must be private to its owner";
    EXPECT_TRUE(std::filesystem::exists(image + "/gocryptfs.conf")) << "create made no image";
    EXPECT_EQ(errorFrom([&] { tool.attach(image, mountPoint, "wrong password", false); }),
              CorvaneError::wrongPassword());
    EXPECT_TRUE(attachedHere().empty()) << "a wrong password attached anyway";

    wrapped.attach(image, mountPoint, password, false);
    EXPECT_EQ(attachedHere(), (std::vector<AttachedImage>{{image, mountPoint}}))
        << "spaces and non-Latin letters come back unescaped";
    writeFile(mountPoint + "/Sub/notes.txt", "secret notes");
    tool.detach(mountPoint, false);
    EXPECT_TRUE(attachedHere().empty()) << "detach left the image attached";
    EXPECT_FALSE(std::filesystem::exists(mountPoint + "/Sub")) << "plaintext left after detach";

    writeFile(image + "/gocryptfs.conf.tmp", "left by an interrupted change");
    wrapped.changePassword(image, password, changed);
    EXPECT_EQ(errorFrom([&] { tool.changePassword(image, password, "third"); }),
              CorvaneError::wrongPassword())
        << "the old password still re-keys";
    EXPECT_EQ(errorFrom([&] { tool.attach(image, mountPoint, password, false); }),
              CorvaneError::wrongPassword())
        << "the old password still opens";

    tool.attach(image, mountPoint, changed, true);
    EXPECT_EQ(readFile(mountPoint + "/Sub/notes.txt"), "secret notes") << "writes were lost";
    EXPECT_LT(open((mountPoint + "/new.txt").c_str(), O_WRONLY | O_CREAT, 0600), 0);
    EXPECT_EQ(errno, EROFS) << "a read-only attach must refuse writes";
    tool.detach(mountPoint, false);

    std::string seen = readFile(root / "seen");
    EXPECT_NE(seen.find(image), std::string::npos) << "the wrapper never ran";
    EXPECT_EQ(seen.find("hunter2"), std::string::npos) << "a password leaked to argv or environ";
}

TEST_F(GocryptfsToolTest, PasswordsItCannotTakeAreRefusedBeforeAnythingIsMade) {
    const std::string lineBreak = "a password cannot contain a line break.";
    const std::pair<std::string, std::string> rows[] = {
        {"two\nlines", lineBreak},
        {"ends with a line break\n", lineBreak},
        {"carriage\rreturn", lineBreak},
        {"", "an empty password cannot protect a locked item."},
        {std::string(2049, 'x'), "a password cannot be longer than 2048 bytes."},
    };
    for (const auto& [password, problem] : rows) {
        EXPECT_EQ(errorFrom([&] { tool.create(image, "Taxes", password); }),
                  CorvaneError::diskImage(problem));
        EXPECT_FALSE(std::filesystem::exists(image)) << problem << ", yet an image was made";
    }
    tool.create(image, "Taxes", std::string(2048, 'x'));
    tool.attach(image, mountPoint, std::string(2048, 'x'), false);
    tool.detach(mountPoint, false);
}

TEST_F(GocryptfsToolTest, BusyVolumeNamesItsHoldersButSystemIndexersAreEjected) {
    createAttached("draft.txt");
    {
        auto writer = holdingFile(mountPoint + "/draft.txt", ">>");
        EXPECT_EQ(errorFrom([&] { tool.detach(mountPoint, false); }),
                  CorvaneError::inUse({"sleep"}))
            << "a busy volume must name the program holding it";
        EXPECT_EQ(attachedHere().size(), 1u) << "a busy volume was detached anyway";
    }
    // A program borrowing an indexer's name; lsof calls it tracker-miner-f.
    std::filesystem::copy_file("/bin/sleep", root / "tracker-miner-fs-3");
    auto reader = holdingFile(mountPoint + "/draft.txt", "<", root / "tracker-miner-fs-3");
    EXPECT_EQ(errorFrom([&] { tool.detach(mountPoint, false); }), CorvaneError::inUse({}))
        << "its program lies in a temporary folder, and allow-listed names are not named";

    tool.executablePathOf = [](pid_t) -> std::optional<std::string> {
        return "/usr/libexec/tracker-miner-fs-3";
    };
    tool.detach(mountPoint, false);
    EXPECT_TRUE(attachedHere().empty()) << "a real system indexer must not keep the volume open";
}

TEST_F(GocryptfsToolTest, ForcedDetachEndsTheServerAndLeavesNothingReadableEvenIfItDied) {
    // The table mangles a comma in the source, so the server must be found another way.
    image = root / "Taxes, 2024.corvlock";
    mountPoint = root / "Open/Grüße, 2024";
    std::filesystem::create_directories(mountPoint);
    createAttached("secret.txt");
    auto server = serverProcessOf(image);
    ASSERT_TRUE(server) << "no server found for the new mount";
    int fd = open((mountPoint + "/secret.txt").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char buffer[32] = {};
    ASSERT_EQ(read(fd, buffer, sizeof buffer), 9) << "read once, so the kernel has it cached";

    tool.detach(mountPoint, true);
    EXPECT_TRUE(attachedHere().empty()) << "a forced detach left the image attached";
    errno = 0;
    EXPECT_EQ(pread(fd, buffer, sizeof buffer, 0), -1) << "cached plaintext readable after detach";
    EXPECT_TRUE(errno == ENOTCONN || errno == EIO) << std::strerror(errno);
    EXPECT_TRUE(hasEnded(*server)) << "the server outlived a forced detach";
    close(fd);

    tool.attach(image, mountPoint, "password 1", false);
    EXPECT_EQ(readFile(mountPoint + "/secret.txt"), "plaintext") << "forcing damaged the image";
    server = serverProcessOf(image);
    ASSERT_TRUE(server) << "no server found for the new mount";
    kill(*server, SIGKILL);
    for (int waited = 0; waited < 250 && !hasEnded(*server); ++waited)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(attachedHere().size(), 1u) << "a dead mount stays in the table";
    tool.detach(mountPoint, true);
    EXPECT_TRUE(attachedHere().empty()) << "a mount whose server died was left behind";
    EXPECT_EQ(errorFrom([&] { tool.detach(mountPoint, true); }),
              CorvaneError::diskImage("no locked item is open at " + mountPoint + "."));
}

TEST_F(GocryptfsToolTest, OddCharactersInPathsComeBackExactly) {
    // The kernel escapes space, tab, line feed and backslash in the table, and the FUSE layers
    // turn a comma in the source into "_" and two backslashes into one.
    const std::pair<std::string, std::string> rows[] = {
        {"comma", "Taxes,2024"},
        {"tab", "Taxes\t2024"},
        {"backslash", "Taxes\\2024 and \\\\two"},
        {"line feed", "Taxes\n2024"},
        {"octal-looking text", "Taxes\\0542024,#%41"},
    };
    tool.create(image, "Taxes", "password 1");
    std::string current = image;
    for (const auto& [label, odd] : rows) {
        SCOPED_TRACE(label);
        std::string renamed = root / (odd + ".corvlock");
        std::string oddMountPoint = root / ("Open/" + odd);
        std::filesystem::rename(current, renamed);
        current = renamed;
        std::filesystem::create_directories(oddMountPoint);
        tool.attach(renamed, oddMountPoint, "password 1", false);
        EXPECT_EQ(attachedHere(), (std::vector<AttachedImage>{{renamed, oddMountPoint}}))
            << "paths came back altered";
        tool.detach(oddMountPoint, false);
        EXPECT_TRUE(attachedHere().empty()) << "detach missed the oddly named mount";
    }
}

TEST_F(GocryptfsToolTest, ForcedDetachFailsWhenItCannotIdentifyTheServer) {
    // The same gocryptfs under a name this tool does not know as its own: the mount is a
    // fuse.gocryptfs one, but nothing proves which process serves it.
    std::string otherGocryptfs = root / "vault-server";
    std::filesystem::copy_file("/usr/bin/gocryptfs", otherGocryptfs);
    GocryptfsTool other(otherGocryptfs);
    other.create(image, "Taxes", "password 1");
    other.attach(image, mountPoint, "password 1", false);
    auto server = serverProcessOf(image);
    ASSERT_TRUE(server) << "no server found for the new mount";

    EXPECT_EQ(errorFrom([&] { tool.detach(mountPoint, true); }),
              CorvaneError::diskImage("the gocryptfs process that serves the locked item could "
                                      "not be identified, so it stays open."));
    EXPECT_EQ(attachedHere(), (std::vector<AttachedImage>{{image, mountPoint}}))
        << "unmounted although the server was left running";
    EXPECT_FALSE(hasEnded(*server)) << "a process was ended on a guess";

    other.detach(mountPoint, true);
    EXPECT_TRUE(attachedHere().empty()) << "the tool that runs the server must know it";
    EXPECT_TRUE(hasEnded(*server)) << "the server outlived a forced detach";
}

TEST_F(GocryptfsToolTest, DamagedImagesAreRefused) {
    tool.create(image, "Taxes", "password 1");
    std::string config = image + "/gocryptfs.conf", intact = root / "intact.conf";
    std::filesystem::copy_file(config, intact);
    const std::string missing = "the locked item is damaged: its gocryptfs.conf is missing.";
    const std::string notAFile =
        "the locked item is damaged: its gocryptfs.conf is not a regular file.";
    const std::tuple<std::string, std::function<void()>, std::optional<std::string>> rows[] = {
        {"no conf", [&] {}, missing},
        {"conf is a link to an intact copy",
         [&] { std::filesystem::create_symlink(intact, config); }, notAFile},
        {"conf is a dangling link", [&] { std::filesystem::create_symlink(root / "gone", config); },
         notAFile},
        {"conf is a FIFO", [&] { mkfifo(config.c_str(), 0600); }, notAFile},
        {"conf is a folder", [&] { std::filesystem::create_directory(config); }, notAFile},
        // Nothing expected: gocryptfs's own report.
        {"conf is garbage", [&] { writeFile(config, "garbage\n"); }, std::nullopt},
        {"conf is empty JSON", [&] { writeFile(config, "{}\n"); }, std::nullopt},
    };
    {
        // Should gocryptfs ever open the FIFO, this ends its wait instead of hanging the suite.
        auto unblocker = fifoUnblocker(config);
        for (const auto& [label, damage, report] : rows) {
            SCOPED_TRACE(label);
            std::filesystem::remove_all(config);
            damage();
            for (const auto& error :
                 {errorFrom([&] { tool.attach(image, mountPoint, "password 1", false); }),
                  errorFrom([&] { tool.changePassword(image, "password 1", "password 2"); })}) {
                if (!error)
                    ADD_FAILURE() << "a damaged image was accepted";
                else if (report)
                    EXPECT_EQ(*error, CorvaneError::diskImage(*report));
                else
                    EXPECT_EQ(error->errorCase(), CorvaneError::Case::diskImage);
            }
            EXPECT_TRUE(attachedHere().empty()) << "a damaged image left a mount";
            if (!attachedHere().empty()) tool.detach(mountPoint, true);
        }
    }
    std::filesystem::remove_all(config);
    std::filesystem::copy_file(intact, config);
    tool.attach(image, mountPoint, "password 1", false);
    tool.detach(mountPoint, false);
}

TEST(GocryptfsTool, ServerIsMatchedByConnectionElseByMountPoint) {
    TempDir root;
    std::filesystem::create_directories(root / "Open/Taxes, 2024");
    std::filesystem::create_directory_symlink(root / "Open", root / "Shortcut");
    const MountEntry mount{makedev(0, 38), root / "Open/Taxes, 2024", "fuse.gocryptfs",
                           "/home/a/Taxes_ 2024.corvlock"};
    const std::tuple<std::string, std::vector<unsigned long>, std::string, bool> rows[] = {
        {"its connection", {38}, "/elsewhere", true},
        {"another connection at the same place", {39}, mount.mountPoint, false},
        {"one of its connections", {12, 38}, "/elsewhere", true},
        {"same place, no connection numbers", {}, mount.mountPoint, true},
        {"trailing slash", {}, mount.mountPoint + "/", true},
        {"through a linked parent", {}, root / "Shortcut/Taxes, 2024", true},
        {"dot segments", {}, root / "Open/../Open/./Taxes, 2024", true},
        {"mangled like the table's source", {}, root / "Open/Taxes_ 2024", false},
        {"relative: its working folder is gone", {}, "Open/Taxes, 2024", false},
        {"another place", {}, root / "Open", false},
    };
    for (const auto& [label, connections, mountPoint, serves] : rows)
        EXPECT_EQ(GocryptfsTool::serves({4242, "/c", mountPoint, connections}, mount), serves)
            << "wrong server match: " << label;
    EXPECT_TRUE(GocryptfsTool::serves({4242, "/c", "/elsewhere", {(8ul << 20) | 1}},
                                      {makedev(8, 1), "/m", "fuseblk", "/c"}))
        << "the kernel numbers a connection as major << 20 | minor";
}

TEST(GocryptfsTool, CleanDropsSyslogNoise) {
    EXPECT_EQ(GocryptfsTool::clean("SwitchToSyslog: Unix syslog delivery error\n"
                                   "fatal: maximum password length of 2048 bytes exceeded\n"
                                   "SwitchLoggerToSyslog: Unix syslog delivery error\n\n"),
              "fatal: maximum password length of 2048 bytes exceeded")
        << "syslog complaints must not become the report";
    EXPECT_EQ(GocryptfsTool::clean("Invalid mountpoint:\n  directory /a not empty \n"),
              "Invalid mountpoint:   directory /a not empty")
        << "lines must be joined and the ends trimmed";
}

}  // namespace
}  // namespace corvane
