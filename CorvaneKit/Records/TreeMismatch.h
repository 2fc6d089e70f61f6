// One difference found between two trees: where (a path relative to the tree's root, empty for
// the root itself) and why, in words.
#pragma once

#include <string>

namespace corvane {

struct TreeMismatch {
    std::string path;
    std::string reason;

    // "path: reason", with "(item)" standing for the root.
    std::string description() const {
        return (path.empty() ? std::string("(item)") : path) + ": " + reason;
    }

    bool operator==(const TreeMismatch&) const = default;
};

}  // namespace corvane
