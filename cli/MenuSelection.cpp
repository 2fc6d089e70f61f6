#include "MenuSelection.h"

#include <optional>
#include <set>

#include "Commands/FileManagerMenuModel.h"
#include "Records/Paths.h"
#include "Records/SharedState.h"

namespace corvane::cli {

std::vector<std::string> MenuSelection::absolute(const std::vector<std::string>& paths) {
    std::string folder = standardizedPath(".");
    if (folder == "/") folder.clear();
    std::vector<std::string> selection;
    for (const auto& path : paths)
        selection.push_back(path.starts_with('/') ? path : folder + "/" + path);
    return selection;
}

std::vector<FileManagerMenuEntry> MenuSelection::entries(
    const std::vector<std::string>& selection) {
    std::optional<std::set<std::string>> unlocked;
    if (auto state = SharedState::read(SharedState::defaultURL()))
        unlocked = state->unlockedSet(SharedState::currentBootTime());
    return FileManagerMenuModel::entries(selection, unlocked);
}

}  // namespace corvane::cli
