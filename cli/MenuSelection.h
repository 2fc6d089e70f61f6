// What `corvane menu` and `corvane menu-action` share: a selection as the file manager passed it,
// and the entries the menu offers for it.
#pragma once

#include <string>
#include <vector>

#include "Commands/FileManagerMenuEntry.h"

namespace corvane::cli {

struct MenuSelection {
    // Against the working folder, but otherwise as given: the URL names what the user selected.
    static std::vector<std::string> absolute(const std::vector<std::string>& paths);
    // The entries for `selection`, told which items are unlocked by the state the application
    // shares; these commands run while the application holds the support folder, so they take no
    // lock and ask no keyring.
    static std::vector<FileManagerMenuEntry> entries(const std::vector<std::string>& selection);
};

}  // namespace corvane::cli
