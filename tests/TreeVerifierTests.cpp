// The tree walker and the verifier built on it: what a walk reports and how, what counts as a
// difference between an original and its copy, and how unreadable entries, Cancel and hashing on
// several threads come out.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <set>
#include <system_error>

#include "FileSystem/FileWalk.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "Records/CorvaneError.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using namespace corvane::testing;
using Paths = std::vector<std::string>;

Paths sorted(Paths paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
}

// Whether `action` threw what `expected` describes; says on stderr what it got instead, since a
// check running as another user can only pass or fail.
bool failsWith(const std::function<void()>& action, const std::string& expected) {
    std::string actual = "nothing thrown";
    try {
        action();
    } catch (const CorvaneError& error) {
        actual = (error.errorCase() == CorvaneError::Case::copyFailed  ? "copyFailed: "
                  : error.errorCase() == CorvaneError::Case::cancelled ? "cancelled: "
                                                                       : "CorvaneError: ") +
                 error.errorDescription();
    } catch (const std::system_error& error) {
        actual = std::string("system_error: ") + error.what();
    }
    if (actual != expected)
        fprintf(stderr, "expected \"%s\", got \"%s\"\n", expected.c_str(), actual.c_str());
    return actual == expected;
}

Paths differences(const std::string& original, const std::string& copy,
                  const std::set<std::string>& ignoring = {}) {
    Paths lines;
    for (const auto& mismatch : TreeVerifier::compare(original, copy, ignoring))
        lines.push_back(mismatch.description());
    return lines;
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
}

TEST(FileWalk, SkippingDescendantsPrunesOnlyFolders) {
    TempDir dir;
    makeTree(dir.path());
    Paths seen;
    FileWalk::walk(dir.path(), [&](const FileWalk::Entry& entry) {
        seen.push_back(entry.relativePath);
        bool skip = entry.relativePath == "a" || entry.relativePath == "b";  // a folder, a file
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
    EXPECT_TRUE(passesAsUnprivilegedUser([&] {
        try {
            FileWalk::relativePaths(dir / "Secret");
        } catch (const FileWalk::WalkError& error) {
            return error.description() == "Could not read Secret." && error.code() == EACCES;
        }
        return false;
    }));
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
    };
    for (const auto& c : cases) {
        TempDir dir;
        makeTree(dir / "original");
        auto copied = ProcessRunner::run(
            "/bin/sh",
            {"-c", "cd \"$0\" && cp -a original copy && cd copy && " + c.fault, dir.path()});
        ASSERT_EQ(copied.status, 0) << c.name << ": " << copied.output;
        EXPECT_EQ(differences(dir / "original", dir / "copy"), c.expected) << c.name;
    }

    TempDir dir;
    writeFile(dir / "one", "same size 1");
    writeFile(dir / "two", "same size 2");
    EXPECT_EQ(differences(dir / "one", dir / "two"), Paths{"(item): content differs"});
    EXPECT_EQ(differences(dir / "one", dir / "one"), Paths{});
}

TEST(TreeVerifier, IgnoresNamesOnlyAtTheRoot) {
    TempDir dir;
    writeFile(dir / "original/a/f", "f");
    ASSERT_EQ(ProcessRunner::run("/bin/cp", {"-a", dir / "original", dir / "copy"}).status, 0);
    writeFile(dir / "copy/.DS_Store", "");
    writeFile(dir / "copy/.corvane-item.json", "{}");
    writeFile(dir / "copy/a/.DS_Store", "");
    writeFile(dir / "copy/skipped/deep/x", "");
    writeFile(dir / "original/skipped", "a file here, a folder there");
    EXPECT_EQ(
        differences(dir / "original", dir / "copy", {".DS_Store", ".corvane-item.json", "skipped"}),
        Paths{"a/.DS_Store: extra in copy"});
}

TEST(TreeVerifier, UnreadableEntriesFailTheComparison) {
    TempDir dir;
    makeTree(dir / "good");
    makeTree(dir / "subfolder/sub/private");
    chmod((dir / "subfolder/sub/private").c_str(), 0700);
    makeTree(dir / "Closed");
    chmod((dir / "Closed").c_str(), 0700);
    makeTree(dir / "file");
    chmod((dir / "file/a/c").c_str(), 0);

    EXPECT_TRUE(passesAsUnprivilegedUser([&] {
        auto compare = [&](const char* original, const char* copy) {
            return
                [&dir, original, copy] { TreeVerifier::compare(dir / original, dir / copy, {}); };
        };
        return failsWith(compare("subfolder", "good"),
                         "copyFailed: Copying failed: Could not read sub/private") &&
               failsWith(compare("good", "Closed"),
                         "copyFailed: Copying failed: Could not read Closed") &&
               failsWith(compare("file", "good"),
                         "system_error: " + dir / "file/a/c" + ": Permission denied") &&
               // Both unreadable: the original is read first.
               failsWith(compare("subfolder", "Closed"),
                         "copyFailed: Copying failed: Could not read sub/private");
    }));
}

TEST(TreeVerifier, CancelThrowsRatherThanGivingPartialResults) {
    TempDir dir;
    makeTree(dir / "original");
    makeTree(dir / "copy");
    CancelToken cancel;
    cancel.cancel();
    EXPECT_TRUE(
        failsWith([&] { TreeVerifier::compare(dir / "original", dir / "copy", {}, &cancel); },
                  "cancelled: Cancelled. Nothing was changed."));
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
    EXPECT_TRUE(passesAsUnprivilegedUser([&] {
        return failsWith([&] { TreeVerifier::manifest(dir.path(), {}); },
                         "system_error: " + dir / first + ": Permission denied");
    }));
}

}  // namespace
}  // namespace corvane
