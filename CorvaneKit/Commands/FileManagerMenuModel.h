// Which Corvane entries the file manager's menu shows for a selection, from the items' names and
// the unlocked items the application last shared. Stateless; callable from any thread.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Commands/FileManagerMenuEntry.h"

namespace corvane {

struct FileManagerMenuModel {
    // Exactly the extension the engine unlocks; any other spelling is an ordinary item to lock.
    static bool isLockedItem(const std::string& path);

    // `unlockedPaths` is nothing when the application's state is unknown: every entry a locked
    // item may need is offered then, and the application sorts it out.
    static std::vector<FileManagerMenuEntry> entries(
        const std::vector<std::string>& selection,
        const std::optional<std::set<std::string>>& unlockedPaths);
};

}  // namespace corvane
