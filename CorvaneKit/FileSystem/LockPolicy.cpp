#include "FileSystem/LockPolicy.h"

#include <algorithm>

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include "FileSystem/LinuxDesktop.h"
#include "FileSystem/UserDirectories.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

bool isAtOrBelow(std::string_view path, std::string_view folder) {
    if (path == folder) return true;
    if (folder == "/") return true;
    return path.size() > folder.size() && path.substr(0, folder.size()) == folder &&
           path[folder.size()] == '/';
}

bool isBelow(std::string_view path, std::string_view folder) {
    return path != folder && isAtOrBelow(path, folder);
}

std::string lowercased(std::string_view text) {
    icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    unicode.toLower(icu::Locale::getRoot());
    std::string lowered;
    return unicode.toUTF8String(lowered);
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool isSystemPath(std::string_view path) {
    const auto& exact = LinuxDesktop::systemLocations;
    if (std::find(exact.begin(), exact.end(), path) != exact.end()) return true;
    for (auto place : LinuxDesktop::userPlacesInSystemTrees)
        if (isBelow(path, place)) return false;
    return std::any_of(LinuxDesktop::systemTrees.begin(), LinuxDesktop::systemTrees.end(),
                       [&](std::string_view tree) { return isAtOrBelow(path, tree); });
}

}  // namespace

LockPolicy::LockPolicy(std::string_view home, std::string_view mountsRoot,
                       std::optional<std::string_view> appBundle,
                       std::optional<std::string_view> supportDirectory)
    : home_(realPath(home)),
      mountsRoot_(realPath(mountsRoot)),
      appBundle_(appBundle ? std::optional(realPath(*appBundle)) : std::nullopt),
      supportDirectory_(supportDirectory ? std::optional(realPath(*supportDirectory))
                                         : std::nullopt),
      standardFolders_(UserDirectories::standardFolders(home_)) {}

std::optional<LockRefusal> LockPolicy::refusal(std::string_view url, const ItemFacts& facts) const {
    if (!facts.exists) return LockRefusal::doesNotExist;
    if (facts.isSymlink) return LockRefusal::shortcut;

    std::string path = realPath(url);
    auto components = pathComponents(path);

    if (isAtOrBelow(path, mountsRoot_)) return LockRefusal::insideUnlockedItem;
    if (appBundle_ && isAtOrBelow(path, *appBundle_)) return LockRefusal::corvaneItself;
    if (isSystemPath(path)) return LockRefusal::systemLocation;
    if (path == home_) return LockRefusal::homeFolder;
    if (std::find(standardFolders_.begin(), standardFolders_.end(), path) != standardFolders_.end())
        return LockRefusal::standardFolder;
    for (auto folder : LinuxDesktop::libraryFolders)
        if (isAtOrBelow(path, home_ + "/" + std::string(folder))) return LockRefusal::libraryFolder;
    // The copy would catch the records half written, and the lock's own writes would change the
    // item while it is copied.
    if (supportDirectory_ &&
        (isAtOrBelow(path, *supportDirectory_) || isAtOrBelow(*supportDirectory_, path)))
        return LockRefusal::corvaneRecords;

    std::vector<std::string> lowered;
    for (const auto& component : components) lowered.push_back(lowercased(component));
    for (const auto& component : lowered)
        for (auto suffix : LinuxDesktop::applicationSuffixes)
            if (endsWith(component, suffix)) return LockRefusal::application;
    for (std::size_t i = 0; i + 1 < lowered.size(); ++i) {
        const auto& component = lowered[i];
        if (endsWith(component, ".corvlock") || endsWith(component, ".sparsebundle") ||
            startsWith(component, ".corvane-"))
            return LockRefusal::insideLockedItem;
    }
    std::string last = components.size() > 1 ? lowered.back() : "";
    if (endsWith(last, ".corvlock") || startsWith(last, ".corvane-"))
        return LockRefusal::alreadyLocked;

    if (facts.isNetworkVolume) return LockRefusal::networkVolume;
    if (facts.isVolumeRoot) return LockRefusal::volumeRoot;
    if (facts.size > maxBytes) return LockRefusal::tooLarge;
    return std::nullopt;
}

}  // namespace corvane
