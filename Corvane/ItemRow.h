// One line of the item list: a locked item as the user sees it. A plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Records/Uuid.h"

namespace corvane::app {

struct ItemRow {
    Uuid id;
    std::string name;
    std::string location;            // the folder it stands in, for display
    std::optional<std::string> url;  // the locked item now; nothing when it cannot be found
    std::optional<std::int64_t> size;          // space the locked item takes now
    std::optional<std::int64_t> originalSize;  // the original's size before locking
    bool isOpen = false;
    bool needsPasswordUpdate = false;

    bool operator==(const ItemRow&) const = default;
};

}  // namespace corvane::app
