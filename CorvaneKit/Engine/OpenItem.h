// A locked item whose image is attached now, at its private mount point named after its id.
#pragma once

#include <string>

#include "Records/LockedItem.h"
#include "Records/Uuid.h"

namespace corvane {

struct OpenItem {
    Uuid id;
    std::string lockedURL;   // the ".corvlock" item
    std::string mountPoint;  // mountsRoot / id
    LockedItem::Kind kind = LockedItem::Kind::folder;
    std::string name;

    // Where the user's contents are: the volume for a folder, the one file in it for a file.
    std::string contentURL() const {
        return kind == LockedItem::Kind::folder ? mountPoint : mountPoint + "/" + name;
    }

    bool operator==(const OpenItem&) const = default;
};

}  // namespace corvane
