// The small file at the root of every locked item's volume that says what the image holds, so an
// image describes itself without the item index. Read and written while the image is attached.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Records/LockedItem.h"

namespace corvane {

struct ItemMarker {
    static constexpr std::string_view fileName = ".corvane-item.json";

    int formatVersion = 1;
    LockedItem::Kind kind = LockedItem::Kind::file;
    std::string name;
    // A folder's own permissions: the image's top folder stays private (0700), so the mode the
    // item had is kept here and given back when the lock is removed.
    std::optional<unsigned> mode;

    ItemMarker(LockedItem::Kind kind, std::string name) : kind(kind), name(std::move(name)) {}

    bool operator==(const ItemMarker&) const = default;

    // Replaces any marker in the volume, never through a link or into anything but a regular
    // file (ELOOP, EINVAL); failures throw as the file system reported them.
    void write(const std::string& volume) const;

    // Nothing for a missing, unreadable, malformed or oversized marker, or for anything at its
    // name that is not a regular file (a link, a FIFO, a folder): the volume may be hostile.
    static std::optional<ItemMarker> read(const std::string& volume);

    // Whether a name read from a marker may be used as one file name.
    static bool isSafeName(std::string_view name);
};

}  // namespace corvane
