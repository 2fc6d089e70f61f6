// Locking: checks that change nothing, then a journalled copy into a new image that is verified
// through a fresh read-only attachment before the original goes. A failure before the locked
// item is visible is undone completely; after that nothing is undone and recovery finishes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "Engine/ItemClaim.h"
#include "Engine/Locker.h"
#include "FileSystem/CloudFiles.h"
#include "FileSystem/DiskImageTool.h"
#include "FileSystem/FileWalk.h"
#include "FileSystem/ItemFacts.h"
#include "FileSystem/MountTable.h"
#include "FileSystem/OpenFiles.h"
#include "FileSystem/ProcessIO.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/ThumbnailScrubber.h"
#include "FileSystem/TreeVerifier.h"
#include "FileSystem/VolumeLayout.h"
#include "Records/CorvaneError.h"
#include "Records/FatalError.h"
#include "Records/Locator.h"
#include "Records/Paths.h"
#include "Records/UTF8.h"

namespace corvane {

namespace {

bool isAtOrBelow(const std::string& path, const std::string& folder) {
    return path == folder ||
           (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

void refuseMountsInside(const ImageTool& tool, const std::string& item, const std::string& name) {
    std::string itemPath = canonicalPath(item);
    for (const auto& image : tool.attachedImages()) {
        if (isAtOrBelow(image.imagePath, itemPath)) {
            if (image.imagePath.ends_with(".corvlock"))
                throw CorvaneError::containsUnlockedItem(name);
            throw CorvaneError::containsMountedDisk(name);
        }
        if (isAtOrBelow(canonicalPath(image.mountPoint), itemPath))
            throw CorvaneError::containsMountedDisk(name);
    }
    // Any other mount inside (a bind mount, a tmpfs, a drive) would be copied as if it were the
    // item's, and emptied with the original.
    for (const auto& mount : MountTable::read())
        if (isAtOrBelow(mount.mountPoint, itemPath)) throw CorvaneError::containsMountedDisk(name);
}

// What the records cannot hold, and what the image's volume keeps for itself, are refused
// before anything else is read.
void refuseWhatCannotBeKept(const std::string& item) {
    if (!UTF8::isValid(item)) throw CorvaneError::refused(LockRefusal::nameNotText);
    struct stat status {};
    if (lstat(item.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return;
    for (const auto& reserved : VolumeLayout::housekeeping())
        if (lstat((item + "/" + reserved).c_str(), &status) == 0)
            throw CorvaneError::refused(LockRefusal::holdsReservedName);
}

void refuseFinderLocked(const std::string& item, const std::string& name) {
    if (Locker::isMarkedUnchangeable(item) || Locker::hasDenyDeleteACL(item))
        throw CorvaneError::finderLocked(name);
}

// Whether this process may read an entry as the copy does: a file's bytes, a folder's names and
// what lies in it. Only entries whose owner bits do not already say so cost a system call.
bool readable(const std::string& path, const struct stat& status) {
    const bool folder = S_ISDIR(status.st_mode);
    if (!folder && !S_ISREG(status.st_mode)) return true;  // links, devices and pipes are not read
    const mode_t needed = folder ? S_IRUSR | S_IXUSR : S_IRUSR;
    if (status.st_uid == geteuid() && (status.st_mode & needed) == needed) return true;
    return faccessat(AT_FDCWD, path.c_str(), folder ? R_OK | X_OK : R_OK, AT_EACCESS) == 0;
}

// One walk for what is refused inside an item. A "._" name or a marked file ends it at once; a
// hard-linked file is reported only when neither turns up, as two walks in turn would report it.
// `reach` is the longest path the copy and the check put in front of a path inside the item.
// Also returns the folders inside that their owner may not write to or search, which the copy has
// to prepare (see prepareClosedFolders).
std::vector<std::string> refuseWhatIsInside(const std::string& item, const std::string& name,
                                            std::size_t reach) {
    if (name.starts_with("._")) throw CorvaneError::containsAppleDouble(name);
    std::optional<Locker::Found> found;
    std::optional<LockRefusal> refusal;
    bool hardLinked = false;
    std::vector<std::string> closedFolders;
    struct Stop {};
    try {
        FileWalk::walk(item, [&](const FileWalk::Entry& entry) {
            const std::string& path = entry.relativePath;
            if (path.starts_with("._") || path.find("/._") != std::string::npos)
                found = Locker::Found::appleDouble;
            else if (!entry.problem && Locker::isMarkedUnchangeable(item + "/" + path))
                found = Locker::Found::finderLocked;
            if (found) throw Stop{};
            if (reach + 1 + path.size() >= PATH_MAX)
                refusal = refusal.value_or(LockRefusal::nestedTooDeeply);
            else if (entry.problem ? *entry.problem != ENOENT
                                   : !readable(item + "/" + path, entry.info))
                refusal = refusal.value_or(LockRefusal::holdsUnreadable);
            if (entry.problem) return FileWalk::Next::descend;
            hardLinked = hardLinked || (S_ISREG(entry.info.st_mode) && entry.info.st_nlink > 1);
            if (S_ISDIR(entry.info.st_mode) && (entry.info.st_mode & S_IRWXU) != S_IRWXU)
                closedFolders.push_back(path);
            return FileWalk::Next::descend;
        });
    } catch (const Stop&) {
    }
    if (found == Locker::Found::finderLocked) throw CorvaneError::containsFinderLocked(name);
    if (found == Locker::Found::appleDouble) throw CorvaneError::containsAppleDouble(name);
    struct stat status {};
    if (hardLinked ||
        (lstat(item.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink >= 2))
        throw CorvaneError::hardLinked(name);
    if (refusal) throw CorvaneError::refused(*refusal);
    return closedFolders;
}

// The image's file system answers a new folder's mode from its cache as fully open, so cp skips
// opening up a read-only folder and then cannot write into it. Folders made beforehand are
// written into, and cp gives them their modes and times at the end.
void prepareClosedFolders(const std::string& volume, const std::vector<std::string>& folders) {
    for (const auto& folder : folders) {
        std::string path = volume;
        for (std::size_t start = 0; start <= folder.size();) {
            std::size_t end = std::min(folder.find('/', start), folder.size());
            path += "/" + folder.substr(start, end - start);
            if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
                throw std::system_error(errno, std::generic_category(), path);
            start = end + 1;
        }
    }
}

void writeEmptyFile(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
    close(fd);
}

}  // namespace

void Locker::copy(const std::string& source, const std::string& destination,
                  const CancelToken* cancel, const Folder& folder,
                  const std::function<void(std::int64_t written)>& written) const {
    struct stat status {};
    bool isFolder = lstat(source.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    // cp starts in the folder held open and names what lies in it relative to there: a path
    // through this process's descriptors is closed to another process while this one keeps
    // itself out of core dumps.
    const std::string anchor = folder.anchored("");
    const std::string shown = folder.path() == "/" ? "/" : folder.path() + "/";
    std::vector<std::pair<std::string, std::string>> named;  // as cp was given it, as shown
    auto inFolder = [&](const std::string& path) {
        if (!path.starts_with(anchor)) return path;
        const std::string inside = path.substr(anchor.size());
        const std::string top = inside.substr(0, inside.find('/'));
        named.emplace_back("./" + top, shown + top);
        return "./" + inside;
    };
    // A folder's contents go into the destination folder itself; a file becomes the destination.
    std::vector<std::string> arguments{"-a", "--", inFolder(isFolder ? source + "/." : source),
                                       inFolder(destination)};
    // cp's own count of the bytes it has written, read while it runs.
    std::int64_t most = 0;
    ProcessRunner::Watch watch;
    if (written)
        watch = [&](pid_t child) {
            if (auto count = ProcessIO::bytesWritten(child); count && *count > most)
                written(most = *count);
        };
    ProcessResult result = ProcessRunner::run("/bin/cp", arguments, std::nullopt, std::nullopt,
                                              cancel, watch, folder.descriptor());
    if (result.status == 0) return;
    // cp's own words for a full disk depend on the user's language; the disk's free space does not.
    if (struct statvfs space {}; fstatvfs(folder.descriptor(), &space) == 0 &&
                                 space.f_bavail * space.f_frsize < 1'048'576)
        throw CorvaneError::copyFailed(
            "the disk became full, so nothing was changed; free some space, then try again.");
    // cp names the paths it was given; the user knows the folder by its own path.
    std::string report = result.output;
    for (const auto& [given, path] : named)
        for (auto at = report.find(given); at != std::string::npos;
             at = report.find(given, at + path.size()))
            report.replace(at, given.size(), path);
    throw CorvaneError::copyFailed(DiskImageTool::clean(UTF8::lenient(report)));
}

LockedItem Locker::lock(const std::string& path, const std::string& password,
                        std::int64_t generation, const CancelToken* cancel,
                        const Progress& progress, const BytesProgress& bytes) {
    requireUsablePassword(password);
    const std::string item = itemPath(path);
    auto report = [&](LockStep step) {
        if (progress) progress(step);
    };
    // The bytes of the item's files copied, then checked; nothing when their size is unknown.
    std::int64_t contentSize = 0;
    auto reportBytes = [&](std::int64_t done) {
        if (bytes && contentSize > 0)
            bytes(std::clamp<std::int64_t>(done, 0, contentSize), contentSize);
    };

    // Checks: nothing on disk changes until the journal has the entry.
    report(LockStep::preparing);
    ItemFacts facts = ItemFacts::inspect(item);
    if (auto refusal = policy.refusal(item, facts)) throw CorvaneError::refused(*refusal);
    const std::string parentPath = corvane::parentPath(item);
    const std::string name = lastPathComponent(item);
    // From here on the item is reached through its folder's descriptor, never its path again.
    const Folder parent(parentPath);
    const ItemClaim claim(parent, name);

    refuseWhatCannotBeKept(item);
    // The image is made beside the item, and the original leaves from there.
    if (faccessat(parent.descriptor(), ".", W_OK | X_OK, AT_EACCESS) != 0 &&
        (errno == EACCES || errno == EPERM || errno == EROFS))
        throw CorvaneError::refused(LockRefusal::folderNotWritable);
    refuseMountsInside(*tool, item, name);
    refuseFinderLocked(item, name);
    if (struct stat status {}; lstat(item.c_str(), &status) == 0 && !readable(item, status))
        throw CorvaneError::refused(LockRefusal::holdsUnreadable);
    // The copy names the item's entries from its folder's descriptor, and from a mount point
    // named by a 36-character id.
    const std::size_t reach =
        name.size() + std::max(parent.anchored("").size() + 3, mountsRoot.size() + 1 + 36);
    const std::vector<std::string> closedFolders = refuseWhatIsInside(item, name, reach);

    bool downloaded = false;
    if (auto pending = CloudFiles::notDownloaded(item); !pending.empty()) {
        report(LockStep::downloading);
        CloudFiles::requestDownload(pending);
        using Clock = std::chrono::steady_clock;
        auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(cloudDownloadTimeout));
        while (Clock::now() < deadline) {
            if (cancel && cancel->isCancelled()) throw CorvaneError::cancelled();
            std::this_thread::sleep_for(std::clamp(deadline - Clock::now(), Clock::duration::zero(),
                                                   Clock::duration(std::chrono::seconds(1))));
            pending = CloudFiles::notDownloaded(item);
            if (pending.empty()) break;
        }
        if (cancel && cancel->isCancelled()) throw CorvaneError::cancelled();
        if (!pending.empty()) throw CorvaneError::stillInICloud(name);
        downloaded = true;
    }

    std::int64_t size = downloaded ? ItemFacts::allocatedSize(item) : facts.size;
    std::int64_t needed = 0;
    if (__builtin_add_overflow(spaceMargin, size, &needed)) fatalError("space overflow");
    if (auto available = availableSpace(parentPath); available && *available < needed)
        throw CorvaneError::notEnoughSpace(needed, *available);

    // Read from /proc, as lsof would, but without visiting every file of the item.
    auto writers = OpenFiles::writerNames(OpenFiles::holdersFromProc(item));
    if (!writers.empty()) throw CorvaneError::inUse(writers);
    // The last chance to cancel before the disk is touched; later the copy and verify notice it.
    if (cancel && cancel->isCancelled()) throw CorvaneError::cancelled();

    struct stat itemStatus {};
    if (!parent.status(name, itemStatus)) throw CorvaneError::refused(LockRefusal::doesNotExist);
    const LockedItem::Kind kind =
        S_ISDIR(itemStatus.st_mode) ? LockedItem::Kind::folder : LockedItem::Kind::file;
    const bool isPackage = isPackageExtension("");
    const Uuid id = Uuid::random();
    const std::string partialName = ".corvane-" + id.string() + ".partial.sparsebundle";
    const std::string partialURL = parentPath + "/" + partialName;
    const std::string finalURL = availableLockedURL(
        lockedBaseName(name, kind == LockedItem::Kind::file || isPackage), parentPath);
    const std::string finalName = lastPathComponent(finalURL);
    const std::string mountPoint = mountsRoot + "/" + id.string();
    const std::string copyTarget =
        kind == LockedItem::Kind::folder ? mountPoint : mountPoint + "/" + name;
    const std::string deletingName = ".corvane-" + id.string() + ".deleting";
    // The original as read for the copy, the verification and the snapshots.
    const std::string source = parent.anchored(name);

    // Journal write 1: every path the lock will touch, before any of them exists.
    JournalEntry entry{id,           JournalEntry::Kind::lock,
                       item,         partialURL,
                       finalURL,     std::nullopt,
                       std::nullopt, std::nullopt,
                       std::nullopt};
    journal.add(entry);

    Snapshot before;
    try {
        contentSize = ItemFacts::logicalSize(source);
        before = metadataSnapshot(source);

        report(LockStep::encrypting);
        tool->create(partialURL, volumeName(name), password);
        crashIf(CrashPoint::lockAfterCreate);

        makeMountPoint(mountPoint);
        tool->attach(partialURL, mountPoint, password, false);
        // The volume's own files go in first: a read-only folder's top takes its mode only at the
        // end of the copy.
        writeEmptyFile(mountPoint + "/" + std::string(VolumeLayout::neverIndexName));
        ItemMarker marker(kind, name);
        if (kind == LockedItem::Kind::folder) marker.mode = itemStatus.st_mode & 07777;
        marker.write(mountPoint);
        prepareClosedFolders(mountPoint, closedFolders);
        copy(source, copyTarget, cancel, parent, reportBytes);
        reportBytes(contentSize);  // cp skips holes, and a link's target is no write
        crashIf(CrashPoint::lockAfterCopy);

        // The image's own folder would keep the item's mode and let others list its encrypted
        // tree; the marker keeps the mode instead.
        tool->detach(mountPoint, false);
        if (fchmodat(parent.descriptor(), partialName.c_str(), 0700, 0) != 0)
            throw std::system_error(errno, std::generic_category(), partialURL);

        // Verification reads the image as written, through a fresh read-only attachment.
        report(LockStep::verifying);
        makeMountPoint(mountPoint);
        tool->attach(partialURL, mountPoint, password, true);
        // The bytes checked are those hashed on each side, so the total is the item's size again.
        auto mismatches =
            TreeVerifier::compare(source, copyTarget,
                                  kind == LockedItem::Kind::folder ? VolumeLayout::housekeeping()
                                                                   : std::set<std::string>{},
                                  cancel, reportBytes);
        tool->detach(mountPoint, false);
        rmdir(mountPoint.c_str());
        if (!mismatches.empty()) throw CorvaneError::verificationFailed(mismatches);
        reportBytes(contentSize);
        crashIf(CrashPoint::lockAfterVerify);

        if (afterVerify) afterVerify();
        // The copy verified, but an item written to meanwhile may differ from what was copied.
        if (metadataSnapshot(source) != before) throw CorvaneError::changedWhileLocking();

        // Journal write 2: the image is complete; from its rename on, it is the item.
        report(LockStep::removingOriginal);
        entry.lockedIdentity = FileIdentity::of(parent.anchored(partialName));
        entry.lockedAt = DateFormat::roundedToSecond(std::chrono::system_clock::now());
        entry.originalFacts = factsOf(before);
        journal.add(entry);
        crashIf(CrashPoint::lockBeforeRename);

        parent.renameExclusively(partialName, finalName);
        crashIf(CrashPoint::lockAfterMove);
    } catch (const SimulatedCrash&) {
        throw;
    } catch (...) {
        abandon(mountPoint, parent, partialName, id);
        throw;
    }
    setHiddenExtension(finalURL);

    LockedItem record{id,         name,
                      kind,       Locator::make(finalURL),
                      finalURL,   DateFormat::roundedToSecond(std::chrono::system_clock::now()),
                      generation, LockedItem::Stage::originalPending,
                      item,       contentSize};

    // The locked item is visible: only a change to the original undoes anything from here on,
    // and the journal entry stays until the original is gone so that recovery can finish.
    bool changed = false, gone = false;
    try {
        // Through the folder held open: its path may lead elsewhere by now.
        if (auto identity = FileIdentity::of(parent.anchored(finalName)))
            entry.lockedIdentity = identity;
        entry.lockedAt = record.createdAt;
        journal.add(entry);
        index.upsert(record);
        crashIf(CrashPoint::lockAfterRename);

        flushVolume(parent);
        entry.deletingPath = parentPath + "/" + deletingName;
        journal.add(entry);
        // The original goes only from the folder checked at the start, and only while the
        // original there is the one that was copied and verified.
        parent.confirmIdentity();
        struct stat now {};
        gone = !parent.status(name, now);
        changed = !gone && (now.st_dev != itemStatus.st_dev || metadataOf(now) != before.at(""));
        if (!changed && !gone) {
            parent.renameExclusively(name, deletingName);
            crashIf(CrashPoint::lockAfterRenameToDeleting);
        }
    } catch (const SimulatedCrash&) {
        throw;
    } catch (...) {
        throw CorvaneError::lockedButOriginalRemains(name);
    }

    // The last look, now that no program can find the original by its name: whatever was saved
    // into it since the copy was proven is not deleted with it.
    if (!gone && (changed || !unchangedSinceCopy(parent, deletingName, *entry.originalFacts))) {
        std::string keptName = name;
        try {
            if (!changed) keptName = keepOriginal(parent, deletingName, name);
        } catch (...) {
            // It stays aside; recovery looks again and keeps it.
            throw CorvaneError::lockedButOriginalRemains(name);
        }
        // A program took the name meanwhile: the locked copy stays, and recovery, finding the
        // name holding something else, reports the original kept beside it.
        if (keptName != name) throw CorvaneError::lockedButOriginalRemains(name);
        try {
            undoVisibleLock(parent, entry, finalName, mountPoint);
        } catch (...) {
            throw CorvaneError::lockedButOriginalRemains(name);
        }
        throw CorvaneError::changedWhileLocking();
    }
    try {
        if (!gone) deleteRenamedOriginal(parent, deletingName);
    } catch (...) {
        throw CorvaneError::lockedButRemovalUnfinished(name);
    }
    crashIf(CrashPoint::lockAfterDeleteOriginal);

    record.stage = LockedItem::Stage::complete;
    record.originalPath.reset();
    try {
        index.upsert(record);
    } catch (...) {
        // Recovery finishes the record.
    }
    try {
        journal.remove(id);
    } catch (...) {
        // Recovery drops the finished entry.
    }

    // Previews and Recents must not keep what is now locked.
    std::vector<std::string> relativePaths;
    for (const auto& [relative, metadata] : before)
        if (!relative.empty()) relativePaths.push_back(relative);
    ThumbnailScrubber::reset(item, relativePaths);

    report(LockStep::finishing);
    return record;
}

}  // namespace corvane
