// One Corvane at a time on an item: an exclusive flock on the item itself for as long as this
// object lives. The support lock keeps out another process with the same records; this keeps out
// one working from another support folder, which would otherwise lock or restore the same item
// at the same moment. The system drops it when the process ends.
#pragma once

#include <string>

#include "Engine/Folder.h"

namespace corvane {

class ItemClaim {
public:
    // Claims `name` in `folder`, never through a final link. Throws
    // CorvaneError::refused(LockRefusal::busyElsewhere) when another process holds the claim;
    // claims nothing when the item cannot be opened, which the caller's own checks report.
    ItemClaim(const Folder& folder, const std::string& name);
    ~ItemClaim();
    ItemClaim(const ItemClaim&) = delete;
    ItemClaim& operator=(const ItemClaim&) = delete;

private:
    int fd_ = -1;
};

}  // namespace corvane
