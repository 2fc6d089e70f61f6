// Removing the lock: the image's contents are copied out beside it under a hidden name, checked
// against the image, put in place under a free name, made durable, and only then is the image
// moved aside and deleted.
//
// The "restore" journal entry, as crash recovery reads it:
//   originalPath  the locked item (the image), which stays the only copy that counts until the
//                 restored item has its final name
//   partialPath   the staging copy ".corvane-<id>.restoring" beside it, disposable until then
//   finalPath     "" until a destination is chosen; then the restored item's final path
//   deletingPath  set just before the image is renamed to ".corvane-<id>.deleting" to be deleted;
//                 a partly deleted image is never left under its own name
//   lockedIdentity the verified staging copy's identity, recorded with finalPath: what recovery
//                 checks before it lets the image go
//   lockedAt is not used.
// What recovery does with each state they describe is the table in LockerRecover.cpp.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>

#include "Engine/ItemClaim.h"
#include "Engine/Locker.h"
#include "FileSystem/DiskImageTool.h"
#include "FileSystem/ItemFacts.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "FileSystem/VolumeLayout.h"
#include "Records/Characters.h"
#include "Records/CorvaneError.h"
#include "Records/Paths.h"
#include "Records/UTF8.h"

namespace corvane {

namespace {

// A locked file's volume holds the file and the volume's own entries. Anything else was added
// while it was open and has no place to go: it would be lost with the image.
void refuseAnythingButTheFile(const std::string& volume, const std::string& name) {
    struct stat status {};
    if (lstat((volume + "/" + name).c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        throw CorvaneError::diskImage("the locked item is damaged: its file " +
                                      UTF8::lenient(name) + " is missing.");
    std::vector<std::string> extras;
    for (const auto& entry : std::filesystem::directory_iterator(volume)) {
        std::string entryName = entry.path().filename();
        if (entryName != name && !VolumeLayout::housekeeping().count(entryName))
            extras.push_back(UTF8::lenient(entryName));
    }
    std::sort(extras.begin(), extras.end());
    if (!extras.empty())
        throw CorvaneError::copyFailed(
            "besides " + UTF8::lenient(name) + ", the locked item holds " +
            CorvaneError::list(extras) +
            ", added while it was open, which would be lost. Unlock it, move " +
            (extras.size() == 1 ? "that" : "those") +
            " out, then try again. The item is still locked.");
}

// The copy of the volume's top brought the volume's own entries and its private mode along: they
// are dropped, and the folder gets the item's mode and times back.
void takeTopFolderAttributes(const Folder& parent, const std::string& stagingName,
                             const std::string& volume, const std::optional<ItemMarker>& marker) {
    int fd = openat(parent.descriptor(), stagingName.c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), stagingName);
    struct stat top {};
    int error = stat(volume.c_str(), &top) != 0 ? errno : 0;
    for (const auto& name : VolumeLayout::housekeeping())
        if (error == 0 && unlinkat(fd, name.c_str(), 0) != 0 && errno != ENOENT) error = errno;
    mode_t mode = marker && marker->mode ? *marker->mode : top.st_mode & 07777;
    const struct timespec times[2] = {top.st_atim, top.st_mtim};
    if (error == 0 && fchmod(fd, mode) != 0) error = errno;
    if (error == 0 && futimens(fd, times) != 0) error = errno;
    close(fd);
    if (error != 0) throw std::system_error(error, std::generic_category(), stagingName);
}

}  // namespace

std::string Locker::restoreDestination(const std::string& name, const std::string& directory) {
    return availableName(name, directory, "restored");
}

std::string Locker::removeLock(const std::string& path, const std::string& password,
                               const CancelToken* cancel, const Progress& progress,
                               const BytesProgress& bytes) {
    auto report = [&](LockStep step) {
        if (progress) progress(step);
    };
    requireUsablePassword(password);
    const std::string locked = lockedItemPath(path);
    const std::string parentPath = corvane::parentPath(locked);
    const std::string lockedName = lastPathComponent(locked);
    const Folder parent(parentPath);
    const ItemClaim claim(parent, lockedName);
    refuseOpenElsewhere(locked);

    std::optional<LockedItem> record = index.item(locked);
    // Recovery knows the record by the path it works on: one the user renamed is brought up to
    // date first.
    if (record && record->lastKnownPath != locked) {
        record = ItemIndex::refreshed(*record, locked);
        index.upsert(*record);
    }
    if (record) {
        for (const auto& open : openItems())
            if (open.id == record->id) relock(open, false);  // files in use end the operation here
    }

    const Uuid id = Uuid::random();
    const std::string stagingName = ".corvane-" + id.string() + ".restoring";
    const std::string staging = parent.anchored(stagingName);
    const std::string mountPoint = mountsRoot + "/" + id.string();
    JournalEntry entry{id,           JournalEntry::Kind::restore,
                       locked,       parentPath + "/" + stagingName,
                       "",           std::nullopt,
                       std::nullopt, std::nullopt,
                       std::nullopt};
    journal.add(entry);

    std::string destination;
    try {
        makeMountPoint(mountPoint);
        tool->attach(locked, mountPoint, password, true);
        auto marker = ItemMarker::read(mountPoint);
        auto [name, kind] = contentsOf(mountPoint, record, locked);
        const bool isFolder = kind == LockedItem::Kind::folder;
        std::string content = isFolder ? mountPoint : mountPoint + "/" + name;
        if (!isFolder) refuseAnythingButTheFile(mountPoint, name);

        std::int64_t needed = ItemFacts::allocatedSize(mountPoint);
        if (auto available = availableSpace(parentPath); available && *available < needed)
            throw CorvaneError::notEnoughSpace(needed, *available);

        // One step copies, then checks: its total is the size of the item's files twice, the
        // bytes copied and then those hashed on each side. Nothing when the size is unknown.
        const std::int64_t size = bytes ? contentLogicalSize(mountPoint, kind, name) : 0;
        auto reportBytes = [&](std::int64_t done) {
            if (size > 0 && size <= INT64_MAX / 2)
                bytes(std::clamp<std::int64_t>(done, 0, 2 * size), 2 * size);
        };
        auto copied = [&](std::int64_t written) { reportBytes(std::min(written, size)); };

        report(LockStep::restoring);
        if (isFolder) {
            // Private until it is checked and has its name; cp gives it the item's own owner,
            // times and extended attributes.
            if (mkdirat(parent.descriptor(), stagingName.c_str(), 0700) != 0)
                throw std::system_error(errno, std::generic_category(), entry.partialPath);
            copy(content, staging, cancel, parent, copied);
            takeTopFolderAttributes(parent, stagingName, mountPoint, marker);
        } else {
            copy(content, staging, cancel, parent, copied);
        }
        reportBytes(size);  // cp skips holes, and a link's target is no write
        if (afterRestoreCopy) afterRestoreCopy(staging);
        crashIf(CrashPoint::restoreAfterCopy);

        auto mismatches = TreeVerifier::compare(
            content, staging, isFolder ? VolumeLayout::housekeeping() : std::set<std::string>{},
            cancel, [&](std::int64_t hashed) { reportBytes(size + std::min(hashed, size)); });
        if (!mismatches.empty()) throw CorvaneError::restoreVerificationFailed(mismatches);
        reportBytes(2 * size);

        destination = restoreDestination(name, parentPath);
        entry.finalPath = destination;
        entry.lockedIdentity = FileIdentity::of(staging);
        journal.add(entry);
        crashIf(CrashPoint::restoreBeforeRename);
        parent.renameExclusively(stagingName, lastPathComponent(destination));
    } catch (const SimulatedCrash&) {
        throw;
    } catch (...) {
        abandon(mountPoint, parent, stagingName, id);
        throw;
    }
    crashIf(CrashPoint::restoreAfterRename);

    // The restored item has its name; the image is surplus once the restored files are on stable
    // storage. It is moved aside first, so that a partly deleted image never passes for one.
    tool->detach(mountPoint, true);
    rmdir(mountPoint.c_str());
    flushVolume(parent);
    const std::string deletingName = ".corvane-" + id.string() + ".deleting";
    entry.deletingPath = parentPath + "/" + deletingName;
    journal.add(entry);
    parent.confirmIdentity();
    parent.renameExclusively(lockedName, deletingName);
    parent.removeOwnedTree(deletingName);
    crashIf(CrashPoint::restoreAfterDeleteLocked);
    if (record) index.remove(record->id);
    journal.remove(id);
    report(LockStep::finishing);
    return destination;
}

}  // namespace corvane
