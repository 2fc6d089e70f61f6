// The proof that a copy is identical to its original before the original goes: every entry by
// relative path, with its kind, size, SHA-256 of its content or its link target, compared both
// ways. Timestamps, permissions and owners are deliberately not compared. Runs on the engine's
// worker; file contents are hashed on all cores, with results, errors and cancellation exactly as
// if one file were read after another.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "FileSystem/CancelToken.h"
#include "Records/TreeMismatch.h"

namespace corvane {

struct TreeVerifier {
    struct Entry {
        enum class Kind { file, symlink, other, directory };

        Kind kind = Kind::directory;
        std::int64_t size = 0;  // files only
        std::string text;       // a file's digest, a link's target, or another entry's type name

        static Entry file(std::int64_t size, std::string digest) {
            return {Kind::file, size, std::move(digest)};
        }
        static Entry symlink(std::string target) { return {Kind::symlink, 0, std::move(target)}; }
        static Entry other(std::string typeName) { return {Kind::other, 0, std::move(typeName)}; }
        static Entry directory() { return {}; }

        bool operator==(const Entry&) const = default;
    };

    // Relative path, in the file system's own bytes ("" for a root that is not a folder), to entry;
    // std::map keeps byte order, which is code-point order for UTF-8 names.
    using Manifest = std::map<std::string, Entry>;

    // Bytes of file content hashed so far on each side: the lesser of the original's and the
    // copy's counts, so that it reaches the size of the files only when both trees are read.
    using Progress = std::function<void(std::int64_t hashed)>;
    static constexpr std::chrono::milliseconds progressInterval{200};

    // Every difference, in path order; empty when the trees are equal. The original is read
    // first, so its errors win. `hashed` is called on the calling thread every
    // `progressInterval` while the trees are read, and not after compare returns.
    static std::vector<TreeMismatch> compare(const std::string& original, const std::string& copy,
                                             const std::set<std::string>& ignoringAtRoot,
                                             const CancelToken* cancel = nullptr,
                                             const Progress& hashed = nullptr);

    // Throws CorvaneError::copyFailed("Could not read …") for anything the walk could not
    // examine or a file that is no longer the regular file the walk found when it is opened,
    // CorvaneError::cancelled(), or the file system's error for a file or link that could not be
    // read (ELOOP for a file swapped for a link).
    static Manifest manifest(const std::string& root, const std::set<std::string>& ignoring,
                             const CancelToken* cancel = nullptr);

    static Entry entry(const std::string& path);

    // 64 lower-case hexadecimal digits; read in pieces of at most 1 MiB. Regular files only: a link
    // is not followed (ELOOP) and a FIFO, device or folder is not read but fails with
    // CorvaneError::copyFailed("Could not read NAME").
    static std::string digest(const std::string& path);

    // How many files are hashed at once; all cores unless set (benchmarks compare).
    static unsigned hashingThreads;
};

}  // namespace corvane
