// Opening a locked item at its private mount point, listing what is open, and closing it again.
// Nothing here changes a locked item on disk.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "Engine/ItemClaim.h"
#include "Engine/Locker.h"
#include "Records/CorvaneError.h"
#include "Records/Locator.h"
#include "Records/Paths.h"

namespace corvane {

std::string Locker::lockedItemOrOriginal(const std::string& path) const {
    const std::string given = itemPath(path);
    if (given.ends_with(".corvlock")) return lockedItemPath(path);
    // Where an item was before it was locked: its record's locked item beside that place.
    const std::string folder = canonicalPath(parentPath(given));
    const std::string name = lastPathComponent(given);
    for (const auto& record : index.load()) {
        if (record.displayName != name) continue;
        auto located = ItemIndex::locate(record);
        if (located && canonicalPath(parentPath(*located)) == folder)
            return lockedItemPath(*located);
    }
    return lockedItemPath(path);  // says why it is no locked item
}

void Locker::refuseOpenElsewhere(const std::string& locked) const {
    const std::string image = canonicalPath(locked);
    const std::string ours = canonicalPath(mountsRoot) + "/";
    for (const auto& attached : tool->attachedImages())
        if (canonicalPath(attached.imagePath) == image &&
            !canonicalPath(attached.mountPoint).starts_with(ours))
            throw CorvaneError::refused(LockRefusal::openElsewhere);
}

OpenItem Locker::unlock(const std::string& given, const std::string& password) {
    requireUsablePassword(password);
    const std::string path = lockedItemOrOriginal(given);
    const Folder folder(parentPath(path));
    const ItemClaim claim(folder, lastPathComponent(path));
    refuseOpenElsewhere(path);

    std::optional<LockedItem> record = index.item(path);
    if (record) {
        auto open = openItems();
        auto same = std::find_if(open.begin(), open.end(),
                                 [&](const OpenItem& each) { return each.id == record->id; });
        if (same != open.end()) return *same;
    }
    // An item locked elsewhere, or whose record was lost, is adopted under a new id.
    Uuid id = record ? record->id : Uuid::random();
    std::string mountPoint = mountsRoot + "/" + id.string();
    makeMountPoint(mountPoint);
    VolumeContents contents;
    try {
        tool->attach(path, mountPoint, password, false);
        contents = contentsOf(mountPoint, record, path);
    } catch (...) {
        // A failed unlock leaves nothing open and no mount point behind.
        closeAndForget(mountPoint);
        throw;
    }
    auto [name, kind] = contents;
    // A failing index write from here on leaves the item open, where recovery finds it.
    if (!record) {
        index.upsert(LockedItem{id, name, kind, Locator::make(path), path,
                                DateFormat::roundedToSecond(std::chrono::system_clock::now()), 0,
                                LockedItem::Stage::complete, std::nullopt,
                                contentLogicalSize(mountPoint, kind, name)});
    } else if (!record->contentSize) {
        record->contentSize = contentLogicalSize(mountPoint, kind, name);
        index.upsert(*record);
    }
    return OpenItem{id, path, mountPoint, kind, name};
}

std::vector<OpenItem> Locker::openItems() const {
    auto items = index.load();
    std::string root = canonicalPath(mountsRoot) + "/";
    std::vector<OpenItem> open;
    for (const auto& image : tool->attachedImages()) {
        std::string mountPoint = canonicalPath(image.mountPoint);
        // Only a mount point directly in the mounts root, named after an indexed id, is ours.
        if (!mountPoint.starts_with(root) || mountPoint.find('/', root.size()) != std::string::npos)
            continue;
        std::string idText = mountPoint.substr(root.size());
        auto item = std::find_if(items.begin(), items.end(), [&](const LockedItem& each) {
            return each.id.string() == idText;
        });
        if (item == items.end()) continue;
        std::string lockedURL = ItemIndex::locate(*item).value_or(image.imagePath);
        auto [name, kind] = contentsOf(mountPoint, *item, lockedURL);
        open.push_back(OpenItem{item->id, lockedURL, mountPoint, kind, name});
    }
    return open;
}

void Locker::relock(const OpenItem& item, bool force) {
    std::string mountPoint = canonicalPath(item.mountPoint);
    bool mounted = false;
    try {
        auto images = tool->attachedImages();
        mounted = std::any_of(images.begin(), images.end(), [&](const AttachedImage& image) {
            return canonicalPath(image.mountPoint) == mountPoint;
        });
    } catch (...) {
        mounted = isMountPoint(item.mountPoint);
    }
    if (mounted) tool->detach(item.mountPoint, force);
    rmdir(item.mountPoint.c_str());
}

}  // namespace corvane
