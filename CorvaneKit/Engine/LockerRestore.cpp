// Removing the lock: the image's contents are copied out beside it under a hidden name, checked
// against the image, put in place under a free name, and only then is the image deleted.
//
// The "restore" journal entry, as crash recovery reads it:
//   originalPath  the locked item (the image), which stays the only copy that counts until the
//                 restored item has its final name
//   partialPath   the staging copy ".corvane-<id>.restoring" beside it, disposable until then
//   finalPath     "" until a destination is chosen; then the restored item's final path
//   lockedAt, lockedIdentity, deletingPath are not used.
// So: finalPath empty, or the staging copy still there and nothing at finalPath: the restore never
// finished; remove the staging copy, the locked item is intact. Something at finalPath and no
// staging copy: the restore finished; the image (if still there) and the record are surplus.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "Engine/Locker.h"
#include "FileSystem/DiskImageTool.h"
#include "FileSystem/ItemFacts.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "FileSystem/VolumeLayout.h"
#include "Records/CorvaneError.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

}  // namespace

std::string Locker::restoreDestination(const std::string& name, const std::string& directory) {
    if (!exists(directory + "/" + name)) return directory + "/" + name;
    std::string extension = pathExtension(name);
    std::string base =
        extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1);
    std::string suffix = extension.empty() ? "" : "." + extension;
    for (int n = 1;; ++n) {
        std::string candidate = directory + "/" + base +
                                (n == 1 ? " (restored)" : " (restored " + std::to_string(n) + ")") +
                                suffix;
        if (!exists(candidate)) return candidate;
    }
}

std::string Locker::removeLock(const std::string& path, const std::string& password,
                               const CancelToken* cancel, const Progress& progress) {
    auto report = [&](LockStep step) {
        if (progress) progress(step);
    };
    if (!path.ends_with(".corvlock")) throw CorvaneError::notLocked();
    if (!exists(path)) throw CorvaneError::notFound();
    const std::string locked = standardizedPath(path);
    const std::string parent = locked.substr(0, std::max<std::size_t>(locked.rfind('/'), 1));

    std::optional<LockedItem> record = index.item(locked);
    if (record) {
        for (const auto& open : openItems())
            if (open.id == record->id) relock(open, false);  // files in use end the operation here
    }

    const Uuid id = Uuid::random();
    const std::string staging = parent + "/.corvane-" + id.string() + ".restoring";
    const std::string mountPoint = mountsRoot + "/" + id.string();
    JournalEntry entry{
        id,          JournalEntry::Kind::restore, locked, staging, "", std::nullopt, std::nullopt,
        std::nullopt};
    journal.add(entry);

    std::string destination;
    try {
        makeMountPoint(mountPoint);
        tool->attach(locked, mountPoint, password, true);
        auto [name, kind] = contentsOf(mountPoint, record, locked);
        std::string content =
            kind == LockedItem::Kind::folder ? mountPoint : mountPoint + "/" + name;

        std::int64_t needed = ItemFacts::allocatedSize(mountPoint);
        if (auto available = availableSpace(parent); available && *available < needed)
            throw CorvaneError::notEnoughSpace(needed, *available);

        report(LockStep::restoring);
        if (kind == LockedItem::Kind::folder) {
            if (mkdir(staging.c_str(), 0700) != 0)
                throw std::system_error(errno, std::generic_category(), staging);
            std::vector<std::string> arguments{"-a"};
            for (const auto& entry : std::filesystem::directory_iterator(mountPoint))
                if (!VolumeLayout::housekeeping().count(entry.path().filename()))
                    arguments.push_back(entry.path().string());
            if (arguments.size() > 1) {
                arguments.push_back(staging + "/");
                ProcessResult result =
                    ProcessRunner::run("/bin/cp", arguments, std::nullopt, std::nullopt, cancel);
                if (result.status != 0)
                    throw CorvaneError::copyFailed(DiskImageTool::clean(result.output));
            }
            // The folder itself takes the permissions it had inside the image.
            struct stat root {};
            if (stat(mountPoint.c_str(), &root) == 0) chmod(staging.c_str(), root.st_mode & 07777);
        } else {
            copy(content, staging, cancel);
        }
        if (afterRestoreCopy) afterRestoreCopy(staging);
        crashIf(CrashPoint::restoreAfterCopy);

        auto mismatches =
            TreeVerifier::compare(content, staging,
                                  kind == LockedItem::Kind::folder ? VolumeLayout::housekeeping()
                                                                   : std::set<std::string>{},
                                  cancel);
        if (!mismatches.empty()) throw CorvaneError::restoreVerificationFailed(mismatches);

        destination = restoreDestination(name, parent);
        entry.finalPath = destination;
        journal.add(entry);
        crashIf(CrashPoint::restoreBeforeRename);
        renameExclusively(staging, destination);
    } catch (const SimulatedCrash&) {
        throw;
    } catch (...) {
        abandon(mountPoint, staging, id);
        throw;
    }
    crashIf(CrashPoint::restoreAfterRename);

    // The restored item has its name; the image is surplus from here on.
    tool->detach(mountPoint, true);
    rmdir(mountPoint.c_str());
    removeOwnedTree(locked);
    crashIf(CrashPoint::restoreAfterDeleteLocked);
    if (record) index.remove(record->id);
    journal.remove(id);
    report(LockStep::finishing);
    return destination;
}

}  // namespace corvane
