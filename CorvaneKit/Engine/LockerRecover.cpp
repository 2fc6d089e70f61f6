// Crash recovery: at start, before any other operation, every journal entry is finished or undone,
// and images left attached under the mounts root that no item owns are closed. Nothing here needs
// a password: what is finished was verified before the crash, and what was not is undone.
//
// Restore entries (see LockerRestore.cpp for their fields). L: the locked image at originalPath;
// S: the staging copy at partialPath; F: the restored item at finalPath with the identity of the
// verified staging copy (lockedIdentity); D: the image moved aside to deletingPath.
//
//   state                                    what remove-lock had done      recovery
//   finalPath empty                          copying or verifying           remove S; still locked
//   finalPath set, F not there, S there      verified, not yet renamed      remove S; still locked
//   F there, L there, no deletingPath        renamed; image untouched       flush, move L to D,
//                                                                           delete D; finished
//   F there, deletingPath set (D or L)       deleting the image             delete D (or L as
//                                                                           above); finished
//   F there, neither L nor D                 image deleted                  records only; finished
//   F not there, D there                     restored item went missing     move D back to L;
//                                                                           still locked
//   the folder itself not there              a drive not connected          kept for later
//
// A locked image is deleted only when F, checked by identity, is in place under its final name.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "Engine/Locker.h"
#include "FileSystem/FileWalk.h"
#include "FileSystem/ItemFacts.h"
#include "Records/DateFormat.h"
#include "Records/Locator.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

bool exists(const std::string& path) {
    struct stat status {};
    return !path.empty() && lstat(path.c_str(), &status) == 0;
}

std::string beside(const std::string& folder, const std::string& name) {
    return (folder == "/" ? "" : folder) + "/" + name;
}

// The arguments a process was started with; empty when they cannot be read.
std::vector<std::string> argumentsOf(const std::string& pid) {
    std::string raw(65536, '\0');
    int fd = open(("/proc/" + pid + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    ssize_t length = read(fd, raw.data(), raw.size());
    close(fd);
    raw.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    std::vector<std::string> arguments;
    for (std::size_t start = 0; start < raw.size();) {
        std::size_t end = std::min(raw.find('\0', start), raw.size());
        arguments.push_back(raw.substr(start, end - start));
        start = end + 1;
    }
    return arguments;
}

// A killed operation's children (an image being created, a copy) outlive it for a while and
// could write into what recovery removes. A process is ended when one of its arguments is that
// work, never for a mere mention of it; through a pidfd, so that a number reused meanwhile is
// never signalled.
void endProcessesWorkingOn(const std::function<bool(const std::string&)>& isWork) {
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    if (!proc) return;
    const std::string self = std::to_string(getpid());
    auto working = [&](const std::string& pid) {
        auto arguments = argumentsOf(pid);
        return std::any_of(arguments.begin(), arguments.end(), isWork);
    };
    while (dirent* entry = readdir(proc.get())) {
        std::string pid = entry->d_name;
        if (pid.find_first_not_of("0123456789") != std::string::npos || pid == self) continue;
        if (!working(pid)) continue;
        int handle = static_cast<int>(syscall(SYS_pidfd_open, std::stoi(pid), 0));
        if (handle < 0) continue;
        if (working(pid) && syscall(SYS_pidfd_send_signal, handle, SIGKILL, nullptr, 0) == 0) {
            pollfd ended{handle, POLLIN, 0};
            poll(&ended, 1, 5000);
        }
        close(handle);
    }
}

}  // namespace

void Locker::closeWorkOf(const JournalEntry& entry, bool finished) const {
    // The image the operation worked on, at its own mount point: a finished lock's item, open
    // at the same mount point, is the user's and stays open.
    const std::string mountPoint = mountsRoot + "/" + entry.id.string();
    const std::string image =
        entry.kind == JournalEntry::Kind::lock ? entry.partialPath : entry.originalPath;
    const std::string workName = lastPathComponent(entry.partialPath);
    for (const auto& attached : tool->attachedImages())
        if (canonicalPath(attached.imagePath) == canonicalPath(image) &&
            canonicalPath(attached.mountPoint) == canonicalPath(mountPoint))
            tool->detach(attached.mountPoint, true);
    endProcessesWorkingOn([&](const std::string& argument) {
        return argument == entry.partialPath || argument.ends_with("/" + workName) ||
               (!finished && (argument == mountPoint || argument.starts_with(mountPoint + "/")));
    });
    if (!finished) rmdir(mountPoint.c_str());
}

void Locker::recoverLock(JournalEntry entry, RecoveryReport& report) const {
    const std::string parentPath = corvane::parentPath(entry.originalPath);
    const std::string name = lastPathComponent(entry.originalPath);
    const std::string partialName = ".corvane-" + entry.id.string() + ".partial.sparsebundle";
    const std::string deletingName = ".corvane-" + entry.id.string() + ".deleting";
    // Only what this entry made is ever removed: its own names, beside its original. An entry
    // that names anything else is left as it is, and reported until someone looks.
    if (entry.partialPath != beside(parentPath, partialName) ||
        (entry.deletingPath && *entry.deletingPath != beside(parentPath, deletingName)))
        return void(++report.keptForLater);
    auto records = index.load();
    auto record = std::find_if(records.begin(), records.end(),
                               [&](const LockedItem& item) { return item.id == entry.id; });
    // The locked item this lock made, by its identity: where the entry says, else where its
    // record finds it after the user moved it.
    std::optional<std::string> locked;
    if (entry.lockedIdentity) {
        if (FileIdentity::of(entry.finalPath) == entry.lockedIdentity) {
            locked = entry.finalPath;
        } else if (record != records.end()) {
            auto located = ItemIndex::locate(*record);
            if (located && FileIdentity::of(*located) == entry.lockedIdentity) locked = located;
        }
    }
    closeWorkOf(entry, locked.has_value());
    if (!exists(parentPath)) return void(++report.keptForLater);
    const Folder parent(parentPath);

    if (!locked) {
        if (parent.contains(partialName)) {
            if (!tool->isImage(parent.descriptor(), partialName))
                return void(++report.keptForLater);
            parent.removeOwnedTree(partialName);
        } else if (entry.lockedIdentity) {
            // The locked item was made and has gone from where the entry and its record say: a
            // moved item is found again later, and its original waits for it.
            return void(++report.keptForLater);
        }
        // The lock never produced its item: the original is the only copy and stays as it is.
        if (parent.contains(deletingName)) keepOriginal(parent, deletingName, name);
        if (record != records.end()) index.remove(entry.id);
        journal.remove(entry.id);
        return void(++report.discardedLocks);
    }
    const Folder lockedFolder(corvane::parentPath(*locked));
    const std::string lockedName = lastPathComponent(*locked);
    if (!lockedName.ends_with(".corvlock") || !tool->isImage(lockedFolder.descriptor(), lockedName))
        return void(++report.keptForLater);

    struct stat status {};
    const bool isFile = (parent.status(name, status) || parent.status(deletingName, status)) &&
                        !S_ISDIR(status.st_mode);
    std::optional<std::int64_t> contentSize;
    for (const std::string& original : {name, deletingName})
        if (!contentSize && parent.contains(original))
            contentSize = ItemFacts::logicalSize(parent.anchored(original));
    // An original goes only while it still has the facts it had before the copy: what was saved
    // into it since, even with its modification time put back, keeps it next to the locked copy.
    bool kept = false;
    if (parent.contains(deletingName)) {
        if (entry.originalFacts && unchangedSinceCopy(parent, deletingName, *entry.originalFacts)) {
            deleteRenamedOriginal(parent, deletingName);
        } else {
            keepOriginal(parent, deletingName, name);
            kept = true;
        }
    }
    if (!kept && parent.contains(name)) {
        if (!entry.originalFacts ||
            factsOf(metadataSnapshot(parent.anchored(name))) != *entry.originalFacts) {
            kept = true;
        } else {
            flushVolume(parent);
            entry.deletingPath = beside(parentPath, deletingName);
            journal.add(entry);
            parent.confirmIdentity();
            parent.renameExclusively(name, deletingName);
            if (unchangedSinceCopy(parent, deletingName, *entry.originalFacts)) {
                deleteRenamedOriginal(parent, deletingName);
            } else {
                keepOriginal(parent, deletingName, name);
                kept = true;
            }
        }
    }

    LockedItem item = record != records.end()
                          ? ItemIndex::refreshed(*record, *locked)
                          : LockedItem{entry.id,
                                       name,
                                       isFile ? LockedItem::Kind::file : LockedItem::Kind::folder,
                                       Locator::make(*locked),
                                       *locked,
                                       entry.lockedAt.value_or(DateFormat::roundedToSecond(
                                           std::chrono::system_clock::now())),
                                       0,
                                       LockedItem::Stage::complete,
                                       std::nullopt,
                                       contentSize};
    item.stage = LockedItem::Stage::complete;
    item.originalPath.reset();
    index.upsert(item);
    journal.remove(entry.id);
    ++(kept ? report.keptChangedOriginals : report.finishedLocks);
}

void Locker::recoverRestore(const JournalEntry& entry, RecoveryReport& report) const {
    const std::string parentPath = corvane::parentPath(entry.originalPath);
    const std::string lockedName = lastPathComponent(entry.originalPath);
    const std::string deletingName = ".corvane-" + entry.id.string() + ".deleting";
    const std::string stagingName = ".corvane-" + entry.id.string() + ".restoring";
    // As for a lock: only this entry's own names go, and only a locked image is ever deleted.
    if (entry.partialPath != beside(parentPath, stagingName) ||
        !lockedName.ends_with(".corvlock") ||
        (entry.deletingPath && *entry.deletingPath != beside(parentPath, deletingName)))
        return void(++report.keptForLater);
    closeWorkOf(entry, false);
    if (!exists(parentPath)) return void(++report.keptForLater);
    const Folder parent(parentPath);
    const bool restored = !entry.finalPath.empty() && entry.lockedIdentity &&
                          FileIdentity::of(entry.finalPath) == entry.lockedIdentity;

    if (parent.contains(stagingName)) parent.removeOwnedTree(stagingName);
    if (!restored) {
        // The image is the only copy that counts: it goes back under its own name if it was
        // already moved aside.
        if (parent.contains(deletingName) && !parent.contains(lockedName))
            parent.renameExclusively(deletingName, lockedName);
        journal.remove(entry.id);
        return void(++report.discardedRestores);
    }

    for (const std::string& image : {lockedName, deletingName})
        if (parent.contains(image) && !tool->isImage(parent.descriptor(), image))
            return void(++report.keptForLater);
    const std::string deletingPath = beside(parentPath, deletingName);
    if (parent.contains(lockedName)) {
        flushVolume(parent);
        JournalEntry moving = entry;
        moving.deletingPath = deletingPath;
        journal.add(moving);
        parent.confirmIdentity();
        parent.renameExclusively(lockedName, deletingName);
    }
    // The image's record, found while the image is still there to be found (moved aside, its
    // locator finds it beside), whatever path the record last knew.
    for (const auto& item : index.load()) {
        auto located = ItemIndex::locate(item);
        if (item.lastKnownPath == entry.originalPath ||
            (located && canonicalPath(*located) == canonicalPath(deletingPath)))
            index.remove(item.id);
    }
    parent.removeOwnedTree(deletingName);
    journal.remove(entry.id);
    ++report.finishedRestores;
}

RecoveryReport Locker::recover() const {
    RecoveryReport report;
    ItemIndex::Loaded items;
    OperationJournal::Loaded entries;
    try {
        items = index.loadReportingDamage();
        entries = journal.loadReportingDamage();
    } catch (...) {
        ++report.keptForLater;  // the records cannot be read now; nothing is touched
        return report;
    }
    report.indexWasDamaged = items.damaged;
    report.journalWasDamaged = entries.damaged;
    if (entries.damaged) return report;

    for (const auto& entry : entries.entries) {
        try {
            if (entry.kind == JournalEntry::Kind::lock)
                recoverLock(entry, report);
            else
                recoverRestore(entry, report);
        } catch (...) {
            ++report.keptForLater;
        }
    }

    // Images attached under the mounts root that no item owns are closed; known ones stay open.
    try {
        std::string root = canonicalPath(mountsRoot) + "/";
        auto known = index.load();
        for (const auto& image : tool->attachedImages()) {
            std::string mountPoint = canonicalPath(image.mountPoint);
            if (!mountPoint.starts_with(root) ||
                mountPoint.find('/', root.size()) != std::string::npos)
                continue;
            std::string id = mountPoint.substr(root.size());
            bool owned = std::any_of(known.begin(), known.end(), [&](const LockedItem& item) {
                return item.id.string() == id;
            });
            if (owned) continue;
            tool->detach(mountPoint, true);
            rmdir(mountPoint.c_str());
            ++report.detachedStale;
        }
        std::error_code ignored;
        for (const auto& leftover : std::filesystem::directory_iterator(mountsRoot, ignored))
            rmdir(leftover.path().c_str());  // only empty ones go
    } catch (...) {
        // Stale mounts are closed at the next start.
    }
    return report;
}

}  // namespace corvane
