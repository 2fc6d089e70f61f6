#include "Commands/FileManagerMenuModel.h"

#include <algorithm>

#include "Records/Paths.h"

namespace corvane {

namespace {

using Kind = CorvaneCommand::Kind;

}  // namespace

bool FileManagerMenuModel::isLockedItem(const std::string& path) {
    return pathExtension(lastPathComponent(path)) == "corvlock";
}

std::vector<FileManagerMenuEntry> FileManagerMenuModel::entries(
    const std::vector<std::string>& selection,
    const std::optional<std::set<std::string>>& unlockedPaths) {
    auto lockedCount = std::count_if(selection.begin(), selection.end(), isLockedItem);
    if (selection.empty() || (lockedCount > 0 && std::size_t(lockedCount) < selection.size()))
        return {};
    if (lockedCount == 0) return {{"Lock with Corvane", {Kind::lock, selection}}};

    // The shared state holds resolved paths; the selection may reach an item through a link.
    std::optional<std::set<std::string>> unlocked;
    if (unlockedPaths) {
        unlocked.emplace();
        for (const auto& path : *unlockedPaths) unlocked->insert(canonicalPath(path));
    }
    auto isUnlocked = [&](const std::string& path) {
        return unlocked && unlocked->contains(canonicalPath(path));
    };

    if (selection.size() == 1) {
        const std::string& item = selection.front();
        FileManagerMenuEntry unlock{"Unlock with Corvane", {Kind::unlock, {item}}};
        FileManagerMenuEntry lockNow{"Lock Now", {Kind::lockNow, {item}}};
        FileManagerMenuEntry removeLock{"Remove Lock…", {Kind::removeLock, {item}}};
        if (!unlocked) return {unlock, lockNow, removeLock};
        if (isUnlocked(item)) return {lockNow, {"Show Unlocked Files", {Kind::reveal, {item}}}};
        return {unlock, removeLock};
    }

    std::vector<std::string> open;
    std::copy_if(selection.begin(), selection.end(), std::back_inserter(open),
                 [&](const std::string& path) { return !unlocked || isUnlocked(path); });
    if (open.empty()) return {};
    return {{"Lock Now", {Kind::lockNow, open}}};
}

}  // namespace corvane
