// The few facts about a candidate item that the lock policy needs, gathered fresh for every
// decision. Read-only; any thread. Sizing a large folder walks all of it, so keep it off the
// main thread.
#pragma once

#include <cstdint>
#include <string>

namespace corvane {

struct ItemFacts {
    bool exists = false;  // something is there, a final symbolic link included
    bool isSymlink = false;
    bool isVolumeRoot = false;     // a mount point, or "/"
    bool isNetworkVolume = false;  // the item's file system lives on another machine
    std::int64_t size = 0;         // bytes allocated for the item and everything below it

    bool operator==(const ItemFacts&) const = default;

    // Never fails: what cannot be read counts as absent, local or zero.
    static ItemFacts inspect(const std::string& path);

    // Bytes allocated on disk for every regular file at or below `path`, links not followed,
    // unreadable parts skipped.
    static std::int64_t allocatedSize(const std::string& path);

    // The same walk, summing the files' lengths.
    static std::int64_t logicalSize(const std::string& path);
};

}  // namespace corvane
