// The macOS image tool's command lines and answers, through a recording stand-in for hdiutil.
#include <gtest/gtest.h>

#include <tuple>

#include "FileSystem/DiskImageTool.h"
#include "Records/CorvaneError.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::errorFrom;
using testing::holdingFile;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;

using Args = std::vector<std::string>;

// Stands in for hdiutil: run N records its arguments (NUL-terminated) in args.N and its input in
// stdin.N, prints reply.N if there is one and exits with status.N (0 without one).
class StandIn {
public:
    StandIn() {
        writeFile(script, "#!/bin/sh\ncd '" + dir.path() +
                              "' || exit 99\n"
                              "n=$(( $(cat count 2>/dev/null || echo 0) + 1 ))\n"
                              "echo $n > count\n"
                              "printf '%s\\0' \"$@\" > args.$n\n"
                              "cat > stdin.$n\n"
                              "if [ -f reply.$n ]; then cat reply.$n; fi\n"
                              "exit $(cat status.$n 2>/dev/null || echo 0)\n");
        chmod(script.c_str(), 0755);
        tool.busyPause = std::chrono::milliseconds(20);
    }

    void reply(int n, const std::string& output, int status) {
        writeFile(dir / ("reply." + std::to_string(n)), output);
        writeFile(dir / ("status." + std::to_string(n)), std::to_string(status));
    }
    Args args(int n) const {
        Args args;
        std::istringstream recorded(readFile(dir / ("args." + std::to_string(n))));
        for (std::string arg; std::getline(recorded, arg, '\0');) args.push_back(arg);
        return args;
    }
    std::string stdinOf(int n) const { return readFile(dir / ("stdin." + std::to_string(n))); }
    int runs() const { return std::atoi(readFile(dir / "count").c_str()); }

    TempDir dir;
    std::string script = dir / "hdiutil";
    DiskImageTool tool{script};
};

TEST(DiskImageTool, PasswordsTravelOnlyOnInput) {
    StandIn hdiutil;
    const std::string password = "two words \"double\" 'single' Grüße 日本";
    const std::string image = hdiutil.dir / "Tax Papers.sparsebundle";
    const std::string mountPoint = hdiutil.dir / "Open/Tax Papers";
    hdiutil.tool.create(image, "Tax Papers", password);
    hdiutil.tool.attach(image, mountPoint, password, false);
    hdiutil.tool.attach(image, mountPoint, password, true);
    hdiutil.tool.changePassword(image, "a", "b");
    EXPECT_EQ(hdiutil.args(1),
              (Args{"create", "-size", "2t", "-type", "SPARSEBUNDLE", "-fs", "APFS", "-encryption",
                    "AES-256", "-stdinpass", "-volname", "Tax Papers", "-quiet", image}));
    EXPECT_EQ(hdiutil.args(2), (Args{"attach", "-stdinpass", "-nobrowse", "-noautoopen",
                                     "-mountpoint", mountPoint, image}));
    EXPECT_EQ(hdiutil.args(3), (Args{"attach", "-stdinpass", "-nobrowse", "-noautoopen",
                                     "-mountpoint", mountPoint, "-readonly", image}));
    EXPECT_EQ(hdiutil.args(4), (Args{"chpass", "-oldstdinpass", "-newstdinpass", image}));
    for (int n : {1, 2, 3})
        EXPECT_EQ(hdiutil.stdinOf(n), password) << "run " << n << " altered the password on stdin";
    EXPECT_EQ(hdiutil.stdinOf(4), std::string("a\0b\0", 4)) << "chpass wants both, NUL-ended";

    // Creating checks no password, so even this is only the tool's report.
    hdiutil.reply(5, "hdiutil: create failed - Authentication error\n", 1);
    EXPECT_EQ(errorFrom([&] { hdiutil.tool.create(image, "Tax Papers", password); }),
              CorvaneError::diskImage("create failed - Authentication error"));
}

TEST(DiskImageToolDeathTest, CreateMakesOnlySparseBundles) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Dies before any tool would run: this one does not exist.
    DiskImageTool tool("/nonexistent/hdiutil");
    for (const char* image : {"/tmp/Taxes.dmg", "/tmp/Taxes.sparsebundle.tmp", "/tmp/sparsebundle"})
        EXPECT_DEATH(tool.create(image, "Taxes", "pw"), "sparse bundles") << image;
}

TEST(DiskImageTool, PasswordCheckingFailures) {
    const std::tuple<const char*, int, std::optional<CorvaneError>> rows[] = {
        {"hdiutil: attach failed - Authentication error\n", 1, CorvaneError::wrongPassword()},
        {"hdiutil: slow\nerror 35: Authentication error (x)\n", 80, CorvaneError::wrongPassword()},
        {"Authentication error\n", 0, std::nullopt},  // the status decides success
        {"hdiutil: attach failed - no file systems\n", 1,
         CorvaneError::diskImage("attach failed - no file systems")},
        {"", 1, CorvaneError::diskImage("")},
    };
    for (const auto& [output, status, expected] : rows) {
        SCOPED_TRACE(output);
        StandIn hdiutil;
        hdiutil.reply(1, output, status);
        hdiutil.reply(2, output, status);
        EXPECT_EQ(errorFrom([&] { hdiutil.tool.attach("/i", "/m", "pw", false); }), expected)
            << "attach misread the tool's answer";
        EXPECT_EQ(errorFrom([&] { hdiutil.tool.changePassword("/i", "a", "b"); }), expected)
            << "chpass misread the tool's answer";
    }
}

TEST(DiskImageTool, CleanMakesOneLineWithoutTheToolsName) {
    const std::pair<const char*, const char*> rows[] = {
        {"hdiutil: create failed - No space left\n", "create failed - No space left"},
        {"hdiutil: detach: x\nhdiutil: detach failed - y\n", "detach: x detach failed - y"},
        {"\n\n  x \t\n", "x"},
        {"\ta \n\n b\t", "a   b"},  // only the ends are trimmed
        {"hdiutil: hdiutil: a hdiutil: b", "a b"},
        {" \n\t\n", ""},
    };
    for (const auto& [output, expected] : rows)
        EXPECT_EQ(DiskImageTool::clean(output), expected) << "badly cleaned: " << output;
}

TEST(DiskImageTool, AttachedImagesFromTheInfoPropertyList) {
    StandIn hdiutil;
    const std::string a = hdiutil.dir / "A.sparsebundle", b = hdiutil.dir / "B.sparsebundle";
    std::filesystem::create_directories(a);
    std::filesystem::create_directories(b);
    std::filesystem::create_directory_symlink(hdiutil.dir.path(), hdiutil.dir / "link");
    const std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    // The first image also has an unmounted partition; the second entry has no entities at all.
    // clang-format off
    hdiutil.reply(1, "hdiutil: WARNING: slow\n" + xml + R"(<plist version="1.0"><dict>
<key>framework</key><string>1</string><key>images</key><array>
  <dict><key>image-path</key><string>)" + hdiutil.dir / "link/A.sparsebundle" + R"(</string>
    <key>system-entities</key><array>
      <dict><key>dev-entry</key><string>/dev/disk4</string></dict>
      <dict><key>mount-point</key><string>/Volumes/Grüße &amp; Co</string></dict>
    </array></dict>
  <dict><key>image-path</key><string>)" + b + R"(</string></dict>
  <dict><key>image-path</key><string>)" + b + R"(</string>
    <key>system-entities</key><array>
      <dict><key>mount-point</key><string>/m/one</string></dict>
      <dict><key>mount-point</key><string>/m/two</string></dict>
    </array></dict>
</array></dict></plist>
)", 0);
    // clang-format on
    EXPECT_EQ(
        hdiutil.tool.attachedImages(),
        (std::vector<AttachedImage>{{a, "/Volumes/Grüße & Co"}, {b, "/m/one"}, {b, "/m/two"}}))
        << "images or mount points lost, unresolved or unescaped";
    EXPECT_EQ(hdiutil.args(1), (Args{"info", "-plist"}));
    EXPECT_EQ(hdiutil.stdinOf(1), "") << "info needs no input";

    const auto unlistable = CorvaneError::diskImage("Could not list mounted disk images.");
    const std::tuple<std::string, int, std::optional<CorvaneError>> answers[] = {
        {"hdiutil: no property list\n", 0, unlistable},
        {"<plist version=\"1.0\"><dict/></plist>", 0, unlistable},  // no XML declaration
        {xml + "<plist version=\"1.0\"><dict><key>images</key><arr", 0, unlistable},
        {xml + "<plist version=\"1.0\"><array/></plist>", 0, unlistable},
        {"hdiutil: info failed - x\n", 1, CorvaneError::diskImage("info failed - x")},
        {xml + "<plist version=\"1.0\"><dict/></plist>\n", 0, std::nullopt},  // none attached
    };
    for (const auto& [output, status, expected] : answers) {
        StandIn other;
        other.reply(1, output, status);
        std::vector<AttachedImage> images;
        EXPECT_EQ(errorFrom([&] { images = other.tool.attachedImages(); }), expected)
            << "misread answer: " << output;
        EXPECT_TRUE(images.empty()) << "images from nowhere: " << output;
    }
}

Args detachArgs(const std::string& mountPoint, bool force) {
    Args args{"detach", mountPoint, "-quiet"};
    if (force) args.push_back("-force");
    return args;
}

TEST(DiskImageTool, DetachRetriesOnlyWhileBusy) {
    const std::tuple<const char*, int, std::optional<CorvaneError>> rows[] = {
        {"hdiutil: couldn't unmount disk4 - Resource busy\n", 1, std::nullopt},
        {"", 16, std::nullopt},
        {"Resource busy", 0, std::nullopt},
        {"hdiutil: some error\n", 1, CorvaneError::diskImage("some error")},
    };
    for (const auto& [output, status, expected] : rows) {
        SCOPED_TRACE(output);
        StandIn hdiutil;
        hdiutil.reply(1, output, status);
        EXPECT_EQ(errorFrom([&] { hdiutil.tool.detach("/Volumes/Tax Papers", false); }), expected);
        const int runs = expected ? 1 : 2;
        ASSERT_EQ(hdiutil.runs(), runs) << "busy must be tried again, any other failure not";
        for (int n = 1; n <= runs; ++n) {
            EXPECT_EQ(hdiutil.args(n), detachArgs("/Volumes/Tax Papers", false));
            EXPECT_EQ(hdiutil.stdinOf(n), "") << "detach needs no input";
        }
    }
}

// Three busy answers, each to the same command line; then what detach threw.
std::optional<CorvaneError> detachWhileBusy(StandIn& hdiutil, const std::string& volume,
                                            bool force) {
    hdiutil.reply(1, "hdiutil: couldn't unmount disk4 - Resource busy\n", 1);
    hdiutil.reply(2, "", 16);
    hdiutil.reply(3, "Resource busy\n", 0);
    auto error = errorFrom([&] { hdiutil.tool.detach(volume, force); });
    for (int n : {1, 2, 3})
        EXPECT_EQ(hdiutil.args(n), detachArgs(volume, force)) << "try " << n << " changed";
    return error;
}

TEST(DiskImageTool, StillBusyWithUnknownHoldersPausesBetweenTries) {
    StandIn hdiutil;
    hdiutil.tool.busyPause = std::chrono::milliseconds(150);
    hdiutil.tool.lsofPath = hdiutil.dir / "no-lsof";
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(detachWhileBusy(hdiutil, hdiutil.dir.path(), false), CorvaneError::inUse({}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300))
        << "tries must be spaced by the pause";
    EXPECT_EQ(hdiutil.runs(), 3) << "unknown holders must not lead to a forced detach";
}

TEST(DiskImageTool, StillBusyTheHoldersDecide) {
    TempDir root;
    const std::string volume = root / "Volume", notes = volume + "/notes.txt";
    writeFile(notes, "draft");
    // lsof names a program by the kernel's 15 characters: "tracker-miner-f", an allow-listed
    // indexer, while "viewer" is nobody the system knows.
    std::filesystem::copy_file("/bin/sleep", root / "tracker-miner-fs-3");
    std::filesystem::copy_file("/bin/sleep", root / "viewer");
    auto indexer = holdingFile(notes, "<", root / "tracker-miner-fs-3");
    {
        auto viewer = holdingFile(notes, "<", root / "viewer");
        StandIn withWriter, withReader;
        {
            auto writer = holdingFile(notes, ">>");
            EXPECT_EQ(detachWhileBusy(withWriter, volume, false), CorvaneError::inUse({"sleep"}))
                << "writers must be named first";
        }
        EXPECT_EQ(detachWhileBusy(withReader, volume, false), CorvaneError::inUse({"viewer"}))
            << "then other readers";
        EXPECT_EQ(withWriter.runs() + withReader.runs(), 6) << "forced detach past a real holder";
    }

    // Only the indexer is left.
    const std::tuple<bool, bool, const char*, int, std::optional<CorvaneError>> rows[] = {
        // force asked, indexer is the system's program (else one in a temporary folder), then
        // the forced detach's answer and what detach ends with.
        {false, true, "", 0, std::nullopt},
        {false, true, "hdiutil: detach failed\n", 1, CorvaneError::diskImage("detach failed")},
        // A forced detach that is still busy is reported, not tried again.
        {false, true, "Resource busy\n", 16, CorvaneError::diskImage("Resource busy")},
        {true, true, "", 0, CorvaneError::inUse({})},
        {false, false, "", 0, CorvaneError::inUse({})},
    };
    for (const auto& [force, systemProgram, forcedOutput, forcedStatus, expected] : rows) {
        SCOPED_TRACE(::testing::Message() << force << systemProgram << forcedOutput);
        StandIn hdiutil;
        hdiutil.reply(4, forcedOutput, forcedStatus);
        if (systemProgram)
            hdiutil.tool.executablePathOf = [](pid_t) -> std::optional<std::string> {
                return "/usr/libexec/tracker-miner-fs-3";
            };
        EXPECT_EQ(detachWhileBusy(hdiutil, volume, force), expected);
        const bool forced = !force && systemProgram;
        ASSERT_EQ(hdiutil.runs(), forced ? 4 : 3) << "forced only past a system indexer alone";
        if (forced) {
            EXPECT_EQ(hdiutil.args(4), detachArgs(volume, true)) << "the forced detach's command";
        }
    }
}

}  // namespace
}  // namespace corvane
