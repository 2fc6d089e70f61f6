// Finds a locked item again after it was renamed, where bookmarks do on other systems: an opaque
// record of the item's device, inode and path. It resolves to the path when the same file is still
// there, else to the entry of that folder holding the same inode (a rename in place), else to
// nothing. Stateless.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct Locator {
    // Nothing when the item cannot be looked at (or its path cannot be recorded).
    static std::optional<std::vector<std::uint8_t>> make(const std::string& path);
    static std::optional<std::string> resolve(const std::vector<std::uint8_t>& locator);
};

}  // namespace corvane
