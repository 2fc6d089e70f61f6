// Who holds files open, from lsof and from /proc against real processes; cloud placeholders; and
// forgetting a locked item's thumbnails and recent-files entries.
#include <gtest/gtest.h>

#include "FileSystem/CloudFiles.h"
#include "FileSystem/OpenFiles.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/ThumbnailScrubber.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using testing::BackgroundProcess;
using testing::TempDir;
using testing::writeFile;

using Names = std::vector<std::string>;

TEST(OpenFiles, ParsesAndClassifiesTheListersAnswer) {
    auto holders = OpenFiles::parse("p123\ncViewer\nf4\nar\np456\ncEditor\nf7\naw\n");
    EXPECT_EQ(holders, (std::vector<Holder>{{"Viewer", false, 123}, {"Editor", true, 456}}));
    EXPECT_EQ(OpenFiles::writerNames(Holders::known(holders)), Names{"Editor"});
    EXPECT_EQ(OpenFiles::blockingNames(Holders::known(holders)), Names{"Editor"});

    const std::pair<const char*, std::vector<Holder>> rows[] = {
        {"p1\ncvim\naw\np2\ncvim\nau\n", {{"vim", true, 1}, {"vim", true, 2}}},
        {"pabc\ncOdd\naw\n", {{"Odd", true, 0}}},  // not a number: filed under 0
        {"p7\ncfirst\ncsecond\na \na-\np7\naw\n",
         {{"first", true, 7}}},              // first name wins; p7 again
        {"p9\nf3\nar\n", {{"", false, 9}}},  // no command
        {"lsof: WARNING: can't stat() fuse file system\np5\ncx\n", {{"x", false, 5}}},
        {"", {}},
    };
    for (const auto& [output, expected] : rows)
        EXPECT_EQ(OpenFiles::parse(output), expected) << output;

    auto twoWriters =
        Holders::known(OpenFiles::parse("p1\ncvim\naw\np2\ncvim\naw\np3\nccat\nar\n"));
    EXPECT_EQ(OpenFiles::writerNames(twoWriters), Names{"vim"}) << "one name per program";

    EXPECT_EQ(OpenFiles::classify(0, true, "p1\ncx\n"), Holders::unknown());
    EXPECT_EQ(OpenFiles::classify(1, false, " \n\t"), Holders::unknown());
    EXPECT_EQ(OpenFiles::classify(1, false, "p1\ncx\n"), Holders::known({{"x", false, 1}}));
    EXPECT_EQ(OpenFiles::classify(0, false, ""), Holders::known({}));
    EXPECT_EQ(OpenFiles::writerNames(Holders::unknown()), Names{});
    EXPECT_EQ(OpenFiles::blockingNames(Holders::unknown()), Names{});
}

TEST(OpenFiles, AutoEjectOnlyForSystemReadersOnTheAllowList) {
    auto systemPath = [](pid_t) -> std::optional<std::string> {
        return "/usr/libexec/tracker-miner-fs-3";
    };
    auto userPath = [](pid_t) -> std::optional<std::string> {
        return "/home/a/bin/tracker-miner-fs-3";
    };
    auto vanished = [](pid_t) -> std::optional<std::string> { return std::nullopt; };
    auto reader = Holders::known({{"tracker-miner-f", false, 10}});
    auto writer = Holders::known({{"tracker-miner-f", true, 10}});
    auto mixed = Holders::known({{"tumblerd", false, 10}, {"gedit", false, 11}});

    EXPECT_TRUE(OpenFiles::safeToAutoEject(reader, systemPath));
    EXPECT_FALSE(OpenFiles::safeToAutoEject(reader, userPath)) << "a borrowed name";
    EXPECT_FALSE(OpenFiles::safeToAutoEject(reader, vanished));
    EXPECT_FALSE(OpenFiles::safeToAutoEject(writer, systemPath));
    EXPECT_FALSE(OpenFiles::safeToAutoEject(mixed, systemPath));
    EXPECT_FALSE(OpenFiles::safeToAutoEject(Holders::known({}), systemPath));
    EXPECT_FALSE(OpenFiles::safeToAutoEject(Holders::unknown(), systemPath));
    EXPECT_EQ(OpenFiles::blockingNames(reader), Names{}) << "only allow-listed readers";
    EXPECT_EQ(OpenFiles::blockingNames(mixed), Names{"gedit"});
}

// Maps a file through libc and closes it, so the mapping is all that holds the file (Python's own
// mmap keeps a duplicate descriptor open).
constexpr const char* kMapper = R"(
import ctypes, mmap, os, sys, time
libc = ctypes.CDLL(None)
libc.mmap.restype = ctypes.c_void_p
libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                      ctypes.c_long]
fd = os.open(sys.argv[1], os.O_RDWR)
sharing = mmap.MAP_SHARED if sys.argv[2] == "shared" else mmap.MAP_PRIVATE
if libc.mmap(None, 4096, mmap.PROT_READ | mmap.PROT_WRITE, sharing, fd, 0) in (None, 2**64 - 1):
    sys.exit(1)
os.close(fd)
open(sys.argv[3], "w").close()
time.sleep(60)
)";

TEST(OpenFiles, ProcScanSeesWhatLsofSees) {
    TempDir root;
    const std::string item = root / "x/a", photo = item + "/sub/deep/photo.jpg";
    for (const char* name : {"w.txt", "r.txt", "gone.txt", "map\nshared", "private"})
        writeFile(item + "/" + name, std::string(4096, 'x'));
    writeFile(photo, "jpeg");
    writeFile(root / "x/ab/w.txt", "not inside");
    writeFile(item + " (deleted)", "a sibling, not inside");
    // A program borrowing an indexer's name, started from a temporary folder.
    const std::string indexer = root / "tracker-miner-fs-3";
    std::filesystem::copy_file("/bin/sleep", indexer);

    struct Row {
        std::string what, command;
        std::unique_ptr<BackgroundProcess> process;
        bool holds, isWriter;
    };
    auto shell = [](const std::string& script, const std::string& argument,
                    const std::string& program = "/bin/sleep") {
        return std::make_unique<BackgroundProcess>(std::vector<std::string>{
            "/bin/sh", "-c", script + "; exec \"$2\" 60", "sh", argument, program});
    };
    auto mapper = [&](const std::string& file, const std::string& sharing) {
        return std::make_unique<BackgroundProcess>(std::vector<std::string>{
            "/usr/bin/python3", "-c", kMapper, file, sharing, root / ("ready-" + sharing)});
    };
    Row rows[] = {
        {"appends", "sleep", shell("exec 3>>\"$1\"", item + "/w.txt"), true, true},
        {"reads", "sleep", shell("exec 3<\"$1\"", item + "/r.txt"), true, false},
        {"works inside", "sleep", shell("cd \"$1\"", item + "/sub"), true, false},
        {"shared", "python3", mapper(item + "/map\nshared", "shared"), true, true},
        {"private", "python3", mapper(item + "/private", "private"), true, false},
        {"updates a deleted file", "sleep", shell("exec 3<>\"$1\"; rm \"$1\"", item + "/gone.txt"),
         true, true},
        {"same prefix", "sleep", shell("exec 3>>\"$1\"", root / "x/ab/w.txt"), false, false},
        {"named deleted", "sleep", shell("exec 3<\"$1\"", item + " (deleted)"), false, false},
        // lsof names a program by the kernel's 15 characters.
        {"reads deep down", "tracker-miner-f", shell("exec 3<\"$1\"", photo, indexer), true, false},
    };
    // A shell's set-up is done once it has become sleep; a mapper says so with a file.
    auto ready = [&](const Row& row) {
        if (row.command == "python3") return std::filesystem::exists(root / ("ready-" + row.what));
        return testing::readFile("/proc/" + std::to_string(row.process->pid()) + "/comm") ==
               row.command + "\n";
    };
    std::vector<Holder> expected;
    for (const auto& row : rows) {
        for (int waited = 0; !ready(row) && waited < 3000; ++waited) usleep(10000);
        ASSERT_TRUE(ready(row)) << row.what;
        if (row.holds) expected.push_back({row.command, row.isWriter, row.process->pid()});
    }
    std::sort(expected.begin(), expected.end(),
              [](const Holder& a, const Holder& b) { return a.pid < b.pid; });

    Holders fromProc = OpenFiles::holdersFromProc(item);
    EXPECT_EQ(fromProc, Holders::known(expected));
    EXPECT_EQ(OpenFiles::holdersFromProc(item + "/map\nshared"),
              Holders::known({{"python3", true, rows[3].process->pid()}}))
        << "a line feed in the path, as the mapping list writes it";
    EXPECT_EQ(OpenFiles::holdersFromProc(item + "/gone.txt"),
              Holders::known({{"sleep", true, rows[5].process->pid()}}));
    EXPECT_EQ(OpenFiles::holdersFromProc(root / "x/ab"),
              Holders::known({{"sleep", true, rows[6].process->pid()}}));

    // lsof shows no access mode for a mapping, and walking the folder cannot find an unlinked file.
    std::vector<Holder> lsofView;
    for (Holder holder : fromProc.list) {
        if (holder.pid == rows[5].process->pid()) continue;
        if (holder.pid == rows[3].process->pid()) holder.isWriter = false;
        lsofView.push_back(holder);
    }
    EXPECT_EQ(OpenFiles::holders(item, 10), Holders::known(lsofView));

    EXPECT_EQ(OpenFiles::appNames(item, 10), Names{"sleep"}) << "writers only, each once";
    EXPECT_EQ(OpenFiles::holders(root / "missing", 10), Holders::known({}));
    EXPECT_EQ(OpenFiles::holders(item, 10, root / "no-lsof"), Holders::unknown());

    const pid_t indexerPid = rows[8].process->pid();
    Holders reader = OpenFiles::holders(photo, 10);
    EXPECT_EQ(reader, Holders::known({{"tracker-miner-f", false, indexerPid}}));
    EXPECT_EQ(OpenFiles::blockingNames(reader), Names{}) << "allow-listed readers are not named";
    EXPECT_EQ(OpenFiles::executablePath(indexerPid), indexer);
    EXPECT_FALSE(OpenFiles::executablePath(999999999));
    EXPECT_FALSE(OpenFiles::safeToAutoEject(reader)) << "its program lies in a temporary folder";

    EXPECT_EQ(OpenFiles::holdersFromProc(item, root / "x/ab"), Holders::unknown())
        << "a process table without this process";
    EXPECT_EQ(OpenFiles::holdersFromProc(item, root / "missing"), Holders::unknown());
}

TEST(CloudFiles, PlaceholdersAreTheOnlyFilesToDownload) {
    using Status = CloudFiles::DownloadStatus;
    EXPECT_TRUE(CloudFiles::needsDownload(".Report.pdf.icloud", false, std::nullopt));
    EXPECT_FALSE(CloudFiles::needsDownload(".icloud", true, Status::current));
    EXPECT_FALSE(CloudFiles::needsDownload("..icloud", false, std::nullopt)) << "eight characters";
    EXPECT_TRUE(CloudFiles::needsDownload(".a.icloud", false, std::nullopt));
    EXPECT_FALSE(CloudFiles::needsDownload("a.txt", true, Status::current));
    EXPECT_TRUE(CloudFiles::needsDownload("a.txt", true, Status::downloaded));
    EXPECT_FALSE(CloudFiles::needsDownload("a.txt", false, Status::notDownloaded));
    EXPECT_FALSE(CloudFiles::needsDownload("a.txt", true, std::nullopt));

    TempDir root;
    writeFile(root / "Synced/.Report.pdf.icloud", "");
    writeFile(root / "Synced/deep/.b.icloud", "");
    writeFile(root / "Synced/local.txt", "x");
    auto found = CloudFiles::notDownloaded(root / "Synced");
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (Names{root / "Synced/.Report.pdf.icloud", root / "Synced/deep/.b.icloud"}));
    EXPECT_EQ(CloudFiles::notDownloaded(root / "missing"), Names{});
    EXPECT_EQ(CloudFiles::downloadTarget(root / "Synced/.Report.pdf.icloud"),
              root / "Synced/Report.pdf");
    EXPECT_EQ(CloudFiles::downloadTarget(root / "Synced/local.txt"), root / "Synced/local.txt");
}

TEST(ThumbnailScrubber, URIsAndNamesMatchTheThumbnailers) {
    EXPECT_EQ(ThumbnailScrubber::fileURI("/home/a/My Files/#1;x?.txt"),
              "file:///home/a/My%20Files/%231%3Bx%3F.txt");
    EXPECT_EQ(ThumbnailScrubber::fileURI("/a/é(1)+@~"), "file:///a/%C3%A9(1)+@~");
    auto md5 = ProcessRunner::run(
        "/bin/sh", {"-c", "printf %s \"$1\" | md5sum", "sh", "file:///a/%C3%A9(1)+@~"});
    EXPECT_EQ(ThumbnailScrubber::thumbnailName("file:///a/%C3%A9(1)+@~"),
              md5.output.substr(0, 32) + ".png");
}

TEST(ThumbnailScrubber, ForgetsTheLockedItemOnly) {
    TempDir root;
    std::string thumbnails = root / "cache/thumbnails", recents = root / "recently-used.xbel";
    std::string item = root / "Home/Tax Papers";
    auto thumbnailOf = [&](const std::string& folder, const std::string& path) {
        return thumbnails + "/" + folder + "/" +
               ThumbnailScrubber::thumbnailName(ThumbnailScrubber::fileURI(path));
    };
    for (const char* folder : {"normal", "large", "x-large", "fail/gnome-thumbnail-factory"}) {
        writeFile(thumbnailOf(folder, item + "/2024/scan é.pdf"), "png");
        writeFile(thumbnailOf(folder, root / "Home/Tax Papers 2/other.pdf"), "png");
    }
    writeFile(thumbnailOf("normal", item), "png");
    auto bookmark = [](const std::string& path) {
        return "  <bookmark href=\"" + ThumbnailScrubber::fileURI(path) +
               "\" added=\"2025-01-01T00:00:00Z\">\n"
               "    <info><metadata owner=\"http://freedesktop.org\"/></info>\n  </bookmark>\n";
    };
    std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xbel version=\"1.0\">\n";
    const std::string listed = head + bookmark(item + "/2024/scan é.pdf") +
                               bookmark(root / "Home/Tax Papers 2/other.pdf") + bookmark(item) +
                               "</xbel>\n";
    writeFile(recents, listed);
    ASSERT_EQ(chmod(recents.c_str(), 0640), 0);

    EXPECT_TRUE(ThumbnailScrubber::reset(item, {"2024", "2024/scan é.pdf"}, thumbnails, recents));
    EXPECT_EQ(testing::permissions(recents), 0640u) << "the rewrite changed the list's mode";
    for (const char* folder : {"normal", "large", "x-large", "fail/gnome-thumbnail-factory"}) {
        EXPECT_FALSE(std::filesystem::exists(thumbnailOf(folder, item + "/2024/scan é.pdf")))
            << folder;
        EXPECT_TRUE(
            std::filesystem::exists(thumbnailOf(folder, root / "Home/Tax Papers 2/other.pdf")))
            << folder;
    }
    EXPECT_FALSE(std::filesystem::exists(thumbnailOf("normal", item)));
    EXPECT_EQ(testing::readFile(recents),
              head + bookmark(root / "Home/Tax Papers 2/other.pdf") + "</xbel>\n");

    std::string damaged = head + "  <bookmark href=\"" + ThumbnailScrubber::fileURI(item) + "\">\n";
    writeFile(recents, damaged);
    EXPECT_FALSE(ThumbnailScrubber::reset(item, {}, thumbnails, recents));
    EXPECT_EQ(testing::readFile(recents), damaged) << "a damaged list is left alone";
    std::filesystem::remove(recents);
    EXPECT_TRUE(ThumbnailScrubber::reset(item, {}, thumbnails, recents))
        << "no list, nothing to forget";

    // A list that is a link is neither followed nor replaced; one that is a FIFO is not waited on.
    writeFile(root / "elsewhere.xbel", listed);
    ASSERT_EQ(symlink((root / "elsewhere.xbel").c_str(), recents.c_str()), 0);
    EXPECT_FALSE(ThumbnailScrubber::reset(item, {}, thumbnails, recents));
    EXPECT_TRUE(std::filesystem::is_symlink(recents)) << "the link was replaced";
    EXPECT_EQ(testing::readFile(root / "elsewhere.xbel"), listed) << "the link was followed";
    std::filesystem::remove(recents);
    ASSERT_EQ(mkfifo(recents.c_str(), 0600), 0);
    EXPECT_EQ(testing::outcomeInChild([&] {
                  return ThumbnailScrubber::reset(item, {}, thumbnails, recents) ? "scrubbed"
                                                                                 : "left alone";
              }),
              "left alone");
}

}  // namespace
}  // namespace corvane
