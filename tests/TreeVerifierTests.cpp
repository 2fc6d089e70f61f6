// The tree walker and the verifier built on it: what a walk reports and how, what counts as a
// difference between an original and its copy, and how unreadable entries, Cancel and hashing on
// several threads come out.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <system_error>
#include <thread>

#include "FileSystem/FileWalk.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "Records/CorvaneError.h"
#include "Records/UTF8.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using namespace corvane::testing;
using Paths = std::vector<std::string>;

Paths sorted(Paths paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
}

Paths differences(const std::string& original, const std::string& copy,
                  const std::set<std::string>& ignoring = {}) {
    Paths lines;
    for (const auto& mismatch : TreeVerifier::compare(original, copy, ignoring))
        lines.push_back(mismatch.description());
    return lines;
}

// What `action` ended with, as one line ("returned X", "copyFailed: …", "system_error PATH: …"),
// in a child process (as nobody when `unprivileged`), so that a read that blocks fails the test.
std::string outcomeWithin(const std::function<std::string()>& action, bool unprivileged = false) {
    return testing::outcomeInChild(
        [&]() -> std::string {
            try {
                return "returned " + action();
            } catch (const CorvaneError& error) {
                return (error.errorCase() == CorvaneError::Case::copyFailed  ? "copyFailed: "
                        : error.errorCase() == CorvaneError::Case::cancelled ? "cancelled: "
                                                                             : "CorvaneError: ") +
                       error.errorDescription();
            } catch (const FileWalk::WalkError& error) {
                return std::string("WalkError ") + strerrorname_np(error.code()) + ": " +
                       error.what();
            } catch (const std::system_error& error) {
                return std::string("system_error ") + error.what();
            }
        },
        unprivileged);
}

// Runs `action` as user nobody and gives what it ended with.
std::string unprivilegedOutcome(const std::function<void()>& action) {
    return outcomeWithin([&] { return action(), std::string("nothing thrown"); }, true);
}

// a/ (b, c), b, d/ (e), link -> a, pipe (a fifo, which must never be opened).
void makeTree(const std::string& root) {
    writeFile(root + "/a/b", "hello");
    writeFile(root + "/a/c", "world");
    writeFile(root + "/b", "bee");
    writeFile(root + "/d/e", "deep");
    symlink("a", (root + "/link").c_str());
    mkfifo((root + "/pipe").c_str(), 0644);
}

TEST(FileWalk, ReportsEveryEntryBelowTheRootOnceWithoutFollowingLinks) {
    TempDir dir;
    makeTree(dir / "tree");
    const Paths all = {"a", "a/b", "a/c", "b", "d", "d/e", "link", "pipe"};
    for (const std::string& root : {dir / "tree", dir / "tree/", dir / "tree//"}) {
        Paths seen;
        FileWalk::walk(root, [&](const FileWalk::Entry& entry) {
            std::string path = entry.relativePath;
            auto slash = path.rfind('/');
            bool atTop = slash == std::string::npos;
            EXPECT_TRUE(atTop || std::count(seen.begin(), seen.end(), path.substr(0, slash)))
                << path << " before its folder";
            EXPECT_EQ(entry.name(), path.substr(atTop ? 0 : slash + 1));
            EXPECT_EQ(entry.isDirectory, path == "a" || path == "d") << path;
            EXPECT_EQ(S_ISLNK(entry.info.st_mode), path == "link") << path;
            seen.push_back(path);
            return FileWalk::Next::descend;
        });
        EXPECT_EQ(sorted(seen), all) << "root " << root;
    }
    // A root that is a file, or a link to a folder, has nothing below it.
    EXPECT_EQ(FileWalk::relativePaths(dir / "tree/b"), Paths{});
    EXPECT_EQ(FileWalk::relativePaths(dir / "tree/link"), Paths{});

    // Skipping the descendants of a folder prunes it; of a file, changes nothing.
    Paths seen;
    FileWalk::walk(dir / "tree", [&](const FileWalk::Entry& entry) {
        seen.push_back(entry.relativePath);
        bool skip = entry.relativePath == "a" || entry.relativePath == "b";
        return skip ? FileWalk::Next::skipDescendants : FileWalk::Next::descend;
    });
    EXPECT_EQ(sorted(seen), (Paths{"a", "b", "d", "d/e", "link", "pipe"}));
}

TEST(FileWalk, PathsFromTheFileSystemRootAreRelative) {
    struct Enough {};
    Paths seen;
    auto visit = [&](const FileWalk::Entry& entry) {
        seen.push_back(entry.relativePath);
        if (seen.size() == 20) throw Enough{};
        return FileWalk::Next::descend;
    };
    EXPECT_THROW(FileWalk::walk("/", visit), Enough);
    const Paths top = listing("/");  // a name cut short would not be found here
    for (const auto& path : seen) {
        EXPECT_TRUE(!path.empty() && path[0] != '/') << path;
        EXPECT_TRUE(path.find('/') != std::string::npos || std::count(top.begin(), top.end(), path))
            << path;
    }
}

TEST(FileWalk, UnreadableFolderIsReportedOnceWithItsProblem) {
    TempDir dir;
    writeFile(dir / "a/f", "");
    writeFile(dir / "Secret/x", "");
    writeFile(dir / "z/g", "");
    chmod((dir / "Secret").c_str(), 0700);

    EXPECT_TRUE(passesAsUnprivilegedUser([&] {
        Paths seen;
        bool problemShown = false;
        FileWalk::walk(dir.path(), [&](const FileWalk::Entry& entry) {
            seen.push_back(entry.relativePath);
            if (entry.relativePath == "Secret")
                problemShown = entry.isDirectory && entry.problem == EACCES;
            return FileWalk::Next::descend;
        });
        return problemShown && sorted(seen) == Paths{"Secret", "a", "a/f", "z", "z/g"};
    }));
    EXPECT_EQ(unprivilegedOutcome([&] { FileWalk::relativePaths(dir / "Secret"); }),
              "WalkError EACCES: Could not read Secret.");
}

// Names that are not UTF-8, or that decode alike: the bytes are the name.
const std::string kOddNames[] = {
    "R\xe9sum\xe9.txt",  // Latin-1
    "a\xff",             // invalid, decodes to "a" U+FFFD
    "a\xEF\xBF\xBD",     // "a" U+FFFD itself
    "line\nbreak",
    "back\\slash",
    "folder\x80/inner\xC3",
};

TEST(TreeVerifier, NamesAreWalkedComparedAndOpenedAsBytes) {
    TempDir dir;
    Paths expected = {"folder\x80"};
    for (const auto& name : kOddNames) {
        writeFile(dir / ("original/" + name), name);
        expected.push_back(name);
    }
    EXPECT_EQ(sorted(FileWalk::relativePaths(dir / "original")), sorted(expected));
    ASSERT_EQ(ProcessRunner::run("/bin/cp", {"-a", dir / "original", dir / "copy"}).status, 0);
    auto manifest = TreeVerifier::manifest(dir / "original", {});
    for (const auto& name : kOddNames) EXPECT_EQ(manifest.count(name), 1u) << UTF8::lenient(name);
    EXPECT_EQ(differences(dir / "original", dir / "copy"), Paths{});

    // The copy lacks one of two names that decode alike, and another differs.
    ASSERT_EQ(unlink((dir / "copy/a\xff").c_str()), 0);
    writeFile(dir / "copy/line\nbreak", "LINE\nBREAK");
    auto mismatches = TreeVerifier::compare(dir / "original", dir / "copy", {});
    EXPECT_EQ(mismatches, (std::vector<TreeMismatch>{{"a\xff", "missing from copy"},
                                                     {"line\nbreak", "content differs"}}));
    // Only descriptions are decoded, for display.
    EXPECT_EQ(differences(dir / "original", dir / "copy"),
              (Paths{"a\xEF\xBF\xBD: missing from copy", "line\nbreak: content differs"}));
    try {
        FileWalk::relativePaths(dir / "gone\xff");
        ADD_FAILURE() << "a missing root was walked";
    } catch (const FileWalk::WalkError& error) {
        EXPECT_EQ(error.path(), dir / "gone\xff");
        EXPECT_EQ(error.description(), "Could not read gone\xEF\xBF\xBD.");
    }
    chmod((dir / "original/folder\x80").c_str(), 0700);
    EXPECT_EQ(unprivilegedOutcome([&] { TreeVerifier::manifest(dir / "original", {}); }),
              "copyFailed: Copying failed: Could not read folder\xEF\xBF\xBD");
}

TEST(TreeVerifier, OnlyRegularFilesAreHashedAndNothingBlocks) {
    TempDir dir;
    writeFile(dir / "outside", "elsewhere");
    mkfifo((dir / "pipe").c_str(), 0644);
    symlink("pipe", (dir / "link to pipe").c_str());
    symlink((dir / "outside").c_str(), (dir / "link to file").c_str());
    mkdir((dir / "folder").c_str(), 0755);
    const std::pair<std::string, std::string> cases[] = {
        {"pipe", "copyFailed: Copying failed: Could not read pipe"},
        {"link to pipe", "system_error " + dir / "link to pipe" + ": " + strerror(ELOOP)},
        {"link to file", "system_error " + dir / "link to file" + ": " + strerror(ELOOP)},
        {"folder", "copyFailed: Copying failed: Could not read folder"},
        {"outside", "returned " + TreeVerifier::digest(dir / "outside")},
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(outcomeWithin([&] { return TreeVerifier::digest(dir / name); }), expected)
            << name;
    EXPECT_EQ(outcomeWithin([&] { return TreeVerifier::entry(dir / "pipe").text; }),
              "returned fifo");
}

TEST(TreeVerifier, FileSwappedForAFIFOAfterTheWalkIsNotRead) {
    TempDir dir;
    for (int i = 0; i < 20; ++i) writeFile(dir / ("tree/f" + std::to_string(i)), "contents");
    writeFile(dir / "tree/victim", "contents");
    mkfifo((dir / "fifo").c_str(), 0644);
    // The victim and the FIFO trade places, over and over, while manifests are made.
    std::string outcome = outcomeWithin([&] {
        std::atomic<bool> done{false};
        std::thread swapper([&] {
            while (!done)
                renameat2(AT_FDCWD, (dir / "tree/victim").c_str(), AT_FDCWD, (dir / "fifo").c_str(),
                          RENAME_EXCHANGE);
        });
        const std::string digest = TreeVerifier::digest(dir / "tree/f0");
        int refused = 0;
        std::string unexpected;
        for (int i = 0; i < 300 && unexpected.empty(); ++i) {
            try {
                auto victim = TreeVerifier::manifest(dir / "tree", {}).at("victim");
                if (victim != TreeVerifier::Entry::file(8, digest) &&
                    victim != TreeVerifier::Entry::other("fifo"))
                    unexpected = "entry " + victim.text;
            } catch (const CorvaneError& error) {
                if (error.errorDescription() == "Copying failed: Could not read victim")
                    ++refused;
                else
                    unexpected = error.errorDescription();
            }
        }
        done = true;
        swapper.join();
        fprintf(stderr, "refused %d times\n", refused);
        return unexpected.empty() ? std::string("as expected") : unexpected;
    });
    EXPECT_EQ(outcome, "returned as expected");
}

TEST(TreeVerifier, DigestIsTheSHA256OfTheWholeFile) {
    TempDir dir;
    writeFile(dir / "empty", "");
    EXPECT_EQ(TreeVerifier::digest(dir / "empty"),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    // Several read pieces and a partial last one.
    std::string contents((3 << 20) + 7, '\0');
    for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * 31 % 251);
    writeFile(dir / "large", contents);
    auto sum = ProcessRunner::run("/usr/bin/sha256sum", {dir / "large"});
    ASSERT_EQ(sum.status, 0) << sum.output;
    EXPECT_EQ(TreeVerifier::digest(dir / "large"), sum.output.substr(0, 64));
}

TEST(TreeVerifier, CompareReportsEachDifferenceInPathOrder) {
    const struct {
        const char* name;
        std::string fault;  // run in the copy
        Paths expected;
        std::set<std::string> ignoring = {};
    } cases[] = {
        {"identical", "true", {}},
        {"permissions are not compared", "chmod 600 a/b", {}},
        {"last byte changed", "printf hellp > a/b", {"a/b: content differs"}},
        {"truncated", "truncate -s 4 a/b", {"a/b: size differs"}},
        {"link retargeted", "rm link && ln -s d link", {"link: link target differs"}},
        {"link replaced by a file", "rm link && printf a > link", {"link: type differs"}},
        {"fifo instead of a file", "rm b && mkfifo b", {"b: type differs"}},
        {"file removed", "rm a/c", {"a/c: missing from copy"}},
        {"file added", "touch d/new", {"d/new: extra in copy"}},
        {"folder removed", "rm -r d", {"d: missing from copy", "d/e: missing from copy"}},
        {"several",
         "printf bed > b; printf jello > a/b; printf worle > a/c",
         {"a/b: content differs", "a/c: content differs", "b: content differs"}},
        // A file in the original, a folder in the copy: neither is looked at.
        {"names ignored only at the root",
         "touch .DS_Store .corvane-item.json a/.DS_Store && rm b && mkdir -p b/deep && "
         "touch b/deep/x",
         {"a/.DS_Store: extra in copy"},
         {".DS_Store", ".corvane-item.json", "b"}},
    };
    for (const auto& c : cases) {
        TempDir dir;
        makeTree(dir / "original");
        auto copied = ProcessRunner::run(
            "/bin/sh",
            {"-c", "cd \"$0\" && cp -a original copy && cd copy && " + c.fault, dir.path()});
        ASSERT_EQ(copied.status, 0) << c.name << ": " << copied.output;
        EXPECT_EQ(differences(dir / "original", dir / "copy", c.ignoring), c.expected) << c.name;
    }

    TempDir dir;
    writeFile(dir / "one", "same size 1");
    writeFile(dir / "two", "same size 2");
    EXPECT_EQ(differences(dir / "one", dir / "two"), Paths{"(item): content differs"});
    EXPECT_EQ(differences(dir / "one", dir / "one"), Paths{});
}

TEST(TreeVerifier, UnreadableEntriesAndCancelFailTheComparison) {
    TempDir dir;
    makeTree(dir / "good");
    makeTree(dir / "subfolder/sub/private");
    chmod((dir / "subfolder/sub/private").c_str(), 0700);
    makeTree(dir / "Closed");
    chmod((dir / "Closed").c_str(), 0700);
    makeTree(dir / "file");
    chmod((dir / "file/a/c").c_str(), 0);
    CancelToken cancelled;
    cancelled.cancel();
    const struct {
        const char *original, *copy;
        CancelToken* cancel;
        std::string expected;
    } cases[] = {
        {"subfolder", "good", nullptr, "copyFailed: Copying failed: Could not read sub/private"},
        {"good", "Closed", nullptr, "copyFailed: Copying failed: Could not read Closed"},
        {"file", "good", nullptr, "system_error " + dir / "file/a/c" + ": Permission denied"},
        // Both unreadable: the original is read first.
        {"subfolder", "Closed", nullptr, "copyFailed: Copying failed: Could not read sub/private"},
        {"good", "good", &cancelled, "cancelled: Cancelled. Nothing was changed."},
    };
    for (const auto& c : cases)
        EXPECT_EQ(unprivilegedOutcome(
                      [&] { TreeVerifier::compare(dir / c.original, dir / c.copy, {}, c.cancel); }),
                  c.expected)
            << c.original << " against " << c.copy;
}

TEST(TreeVerifier, HashingOnSeveralThreadsMatchesOneByOne) {
    struct RestoreThreads {
        unsigned saved = TreeVerifier::hashingThreads;
        ~RestoreThreads() { TreeVerifier::hashingThreads = saved; }
    } restore;
    TempDir dir;
    for (int i = 0; i < 200; ++i)
        writeFile(dir / ("f" + std::to_string(i % 10) + "/" + std::to_string(i)),
                  std::to_string(i * i));
    for (int i = 0; i < 3; ++i)
        writeFile(dir / ("large" + std::to_string(i)), std::string((1 << 20) + i, 'a' + i));

    TreeVerifier::hashingThreads = 1;
    auto oneByOne = TreeVerifier::manifest(dir.path(), {});
    TreeVerifier::hashingThreads = 4;
    EXPECT_EQ(TreeVerifier::manifest(dir.path(), {}), oneByOne);
    EXPECT_EQ(oneByOne.size(), 213u);

    // Of several unreadable files, the one a one-by-one reading meets first is reported.
    auto order = FileWalk::relativePaths(dir.path());
    std::string first;
    for (const auto& path : order) {
        if (!path.starts_with("f2/")) continue;
        if (first.empty()) first = path;
        chmod((dir / path).c_str(), 0);
    }
    EXPECT_EQ(unprivilegedOutcome([&] { TreeVerifier::manifest(dir.path(), {}); }),
              "system_error " + dir / first + ": Permission denied");
}

}  // namespace
}  // namespace corvane
