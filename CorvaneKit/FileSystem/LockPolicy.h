// Decides whether an item may be locked: moving a system folder, the home folder, an application
// or a whole drive into an encrypted image would break the computer or the user's work. Rules are
// tried in a fixed order and the first that matches decides. Immutable; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FileSystem/ItemFacts.h"
#include "Records/LockRefusal.h"

namespace corvane {

class LockPolicy {
public:
    static constexpr std::int64_t maxBytes =
        2'000'000'000'000;  // the largest image Corvane creates

    // Each location is kept as its real path; the user's Desktop, Documents and Downloads are read
    // from the home folder's desktop settings once, here. `supportDirectory` holds the engine's
    // records, which must stay outside every image while the engine works on them.
    LockPolicy(std::string_view home, std::string_view mountsRoot,
               std::optional<std::string_view> appBundle,
               std::optional<std::string_view> supportDirectory = std::nullopt);

    // Nothing when the item at `path` may be locked.
    std::optional<LockRefusal> refusal(std::string_view path, const ItemFacts& facts) const;

    const std::string& home() const { return home_; }
    const std::string& mountsRoot() const { return mountsRoot_; }
    const std::optional<std::string>& appBundle() const { return appBundle_; }
    const std::optional<std::string>& supportDirectory() const { return supportDirectory_; }
    const std::vector<std::string>& standardFolders() const { return standardFolders_; }

private:
    std::string home_;
    std::string mountsRoot_;
    std::optional<std::string> appBundle_;
    std::optional<std::string> supportDirectory_;
    std::vector<std::string> standardFolders_;
};

}  // namespace corvane
