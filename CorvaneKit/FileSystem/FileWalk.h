// The one tree walker: every entry below a root, links never followed, each with the status the
// walk already read. Problems below the root go to the visitor; only a root (or walk) that cannot
// be read fails the walk. Keeps no state; several walks may run at once.
#pragma once

#include <sys/stat.h>

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct FileWalk {
    struct Entry {
        // Below the root, no leading "/": the name's bytes as the file system holds them, so that
        // the entry can be opened again. Decode only to show it.
        std::string relativePath;
        struct stat info {};         // zeroed when it could not be had
        bool isDirectory = false;    // also for a directory that could not be read
        std::optional<int> problem;  // the error number when the entry could not be examined

        std::string name() const;
    };

    enum class Next { descend, skipDescendants };

    class WalkError : public std::exception {
    public:
        WalkError(std::string path, int code);
        const std::string& path() const { return path_; }
        int code() const { return code_; }
        // "Could not read NAME.", the name decoded leniently; `path` keeps the raw bytes.
        const std::string& description() const { return description_; }
        const char* what() const noexcept override { return description_.c_str(); }
        bool operator==(const WalkError& other) const {
            return path_ == other.path_ && code_ == other.code_;
        }

    private:
        std::string path_;
        int code_;
        std::string description_;
    };

    // Calls `visit` for every entry below `root` (never the root itself), parents before their
    // contents; what `visit` throws stops the walk and passes through.
    static void walk(const std::string& root, const std::function<Next(const Entry&)>& visit);

    static std::vector<std::string> relativePaths(const std::string& root);
};

}  // namespace corvane
