// The user's Desktop, Documents and Downloads folders as the desktop names them
// (~/.config/user-dirs.dirs), else those names in the home folder.
#pragma once

#include <string>
#include <vector>

namespace corvane {

struct UserDirectories {
    // Real paths, in the order Desktop, Documents, Downloads.
    static std::vector<std::string> standardFolders(const std::string& home);
};

}  // namespace corvane
