// One difference found between two trees: where (a path relative to the tree's root, empty for
// the root itself, in the file system's own bytes) and why, in words.
#pragma once

#include <string>

#include "Records/UTF8.h"

namespace corvane {

struct TreeMismatch {
    std::string path;
    std::string reason;

    // "path: reason", with "(item)" standing for the root; the path decoded leniently, for
    // display only.
    std::string description() const {
        return (path.empty() ? std::string("(item)") : UTF8::lenient(path)) + ": " + reason;
    }

    bool operator==(const TreeMismatch&) const = default;
};

}  // namespace corvane
