// The locking engine: locks an item into an encrypted image beside it, opens and closes it, and
// turns it back into normal files, journalling every durable step so that no interruption can
// lose data. Operations are synchronous and blocking, hold no locks of their own and must be
// called one at a time (the application's worker, or one command run under the support lock).
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Engine/CrashPoint.h"
#include "Engine/Folder.h"
#include "Engine/LockStep.h"
#include "Engine/OpenItem.h"
#include "Engine/RecoveryReport.h"
#include "FileSystem/CancelToken.h"
#include "FileSystem/ImageTool.h"
#include "FileSystem/LockPolicy.h"
#include "Records/CorvaneError.h"
#include "Records/ItemIndex.h"
#include "Records/ItemMarker.h"
#include "Records/OperationJournal.h"
#include "Records/OriginalFacts.h"
#include "Records/StoredSecret.h"

namespace corvane {

class Locker {
public:
    using Progress = std::function<void(LockStep)>;
    // Bytes done of `total` in the step last reported, a few times a second while it copies or
    // checks. Called on the thread that runs the operation.
    using BytesProgress = std::function<void(std::int64_t done, std::int64_t total)>;

    // What is compared before and after the copy to notice an item that changed meanwhile. A
    // program can put a modification time back; the inode and the status-change time it cannot.
    struct EntryMetadata {
        mode_t type = 0;  // S_IFMT bits; 0 when unknown
        std::optional<std::int64_t> size;
        std::optional<std::int64_t> modifiedNanoseconds;
        std::optional<std::int64_t> changedNanoseconds;
        std::optional<std::uint64_t> inode;
        bool operator==(const EntryMetadata&) const = default;
    };
    using Snapshot = std::map<std::string, EntryMetadata>;  // "" is the item itself

    enum class Found { appleDouble, finderLocked };

    // Nothing is created on disk here.
    Locker(const std::string& supportDirectory, const std::string& home,
           const std::optional<std::string>& appBundle, std::shared_ptr<const ImageTool> tool);

    std::shared_ptr<const ImageTool> tool;
    ItemIndex index;
    OperationJournal journal;
    std::string mountsRoot;
    LockPolicy policy;

    // Seams between durable steps, for tests and special builds.
    std::optional<CrashPoint> crashPoint;
    std::function<void()> afterVerify;
    std::function<void(const std::string&)> afterRestoreCopy;
    // Called with the item's folder before the only other copy goes: by default everything on its
    // file system reaches stable storage.
    std::function<void(const Folder&)> flushVolume = [](const Folder& folder) {
        folder.synchronize();
    };
    std::function<void(const Folder&, const std::string& name)> deleteRenamedOriginal =
        [](const Folder& folder, const std::string& name) { folder.removeOwnedTree(name); };
    std::int64_t spaceMargin = 250'000'000;
    double cloudDownloadTimeout = 300.0;

    // Every operation that takes a password throws std::invalid_argument with
    // PasswordRules::inputProblem's sentence, before anything is read or written, for a password
    // that cannot be passed on. Paths may be relative to the working folder.

    // Locks the file or folder at `path` and returns its record (stage complete).
    LockedItem lock(const std::string& path, const std::string& password, std::int64_t generation,
                    const CancelToken* cancel = nullptr, const Progress& progress = nullptr,
                    const BytesProgress& bytes = nullptr);

    // Opens the locked item at `path` (or the item locked from `path`) at its private mount
    // point; an open item is returned as it is. A link to a locked item is refused as a shortcut,
    // here and in removeLock.
    OpenItem unlock(const std::string& path, const std::string& password);
    std::vector<OpenItem> openItems() const;
    // "Lock Now": closes one open item.
    void relock(const OpenItem& item, bool force);

    // Turns the locked item at `path` back into normal files beside it; returns where they are.
    std::string removeLock(const std::string& path, const std::string& password,
                           const CancelToken* cancel = nullptr, const Progress& progress = nullptr,
                           const BytesProgress& bytes = nullptr);
    static std::string restoreDestination(const std::string& name, const std::string& directory);

    // Finishes or undoes every interrupted lock and restore in the journal and closes images
    // under the mounts root that no item owns. Runs first, before any other operation; never
    // throws: what cannot be settled now is kept for the next start and counted.
    RecoveryReport recover() const;

    // Re-keys every item behind `generation` from `from` to `to`, writing each item's new
    // generation as soon as its image is moved. Returns the items that could not be moved, with
    // why; throws needsAllLocked while any item is open. `moving` hears of each item before its
    // image is re-keyed.
    std::map<Uuid, CorvaneError> changePassword(
        const std::string& from, const std::string& to, std::int64_t generation,
        const std::function<void(const LockedItem&)>& moving = nullptr);
    // Moves the items still behind the record's generation with each earlier password in turn,
    // newest first, so that an item away through several changes catches up. Returns the items
    // none of them moved; throws needsAllLocked while any item is open.
    std::map<Uuid, CorvaneError> finishMigration(const StoredSecret& secret);
    // The display names of the items still behind `generation`, in index order.
    std::vector<std::string> itemsStillMigrating(std::int64_t generation) const;

    static std::string itemName(const std::optional<ItemMarker>& marker,
                                const std::optional<LockedItem>& record, const std::string& locked);
    // What an attached image holds, from its marker, else the record, else the locked item's name.
    struct VolumeContents {
        std::string name;
        LockedItem::Kind kind = LockedItem::Kind::folder;
    };
    static VolumeContents contentsOf(const std::string& mountPoint,
                                     const std::optional<LockedItem>& record,
                                     const std::string& locked);

    static std::int64_t contentLogicalSize(const std::string& mount, LockedItem::Kind kind,
                                           const std::string& name);
    static EntryMetadata metadataOf(const struct stat& status);
    static Snapshot metadataSnapshot(const std::string& path);
    static OriginalFacts factsOf(const Snapshot& snapshot);
    // The last look before an original moved aside as `name` in `folder` is deleted: true only
    // when no process holds a file of it open for writing and every entry still has `facts`
    // (all but the item's own status-change time, which the move set).
    static bool unchangedSinceCopy(const Folder& folder, const std::string& name,
                                   const OriginalFacts& facts);
    // A free name beside `name` in `directory`: `name` itself, else with " (" + word + ")", then
    // " (" + word + " 2)" and so on before the extension, within the 255 bytes of a name.
    static std::string availableName(const std::string& name, const std::string& directory,
                                     const std::string& word);

    // Naming.
    static std::string lockedBaseName(const std::string& name, bool isFileOrPackage);
    static std::string availableLockedURL(const std::string& base, const std::string& directory);
    static std::string volumeName(const std::string& name);
    static bool isPackageExtension(const std::string& extension);
    static void setHiddenExtension(const std::string& path);

    // File-system helpers.
    static std::optional<std::int64_t> availableSpace(const std::string& path);
    void makeMountPoint(const std::string& path) const;
    // Deletes the tree at `path` through its folder's descriptor, never crossing into another
    // file system; read-only folders are made writable first.
    static void removeOwnedTree(const std::string& path);
    static bool isMountPoint(const std::string& path);
    static bool hasDenyDeleteACL(const std::string& path);
    // Immutable or append-only, the marks that stop an item from being moved or deleted.
    static bool isMarkedUnchangeable(const std::string& path);

private:
    static void requireUsablePassword(std::string_view password);
    // The absolute path of the locked item `path` names (a trailing slash allowed); throws
    // notLocked, notFound, or refused(shortcut) for a symbolic link.
    static std::string lockedItemPath(const std::string& path);
    // The same, also for the place an indexed item was locked from.
    std::string lockedItemOrOriginal(const std::string& path) const;
    // Refuses a locked item attached anywhere but at one of this engine's mount points: it is
    // open in another Corvane, whose writes a second attachment or a restore would lose.
    void refuseOpenElsewhere(const std::string& locked) const;

    // changePassword for the items `only` accepts (all when it is empty).
    std::map<Uuid, CorvaneError> rekey(const std::string& from, const std::string& to,
                                       std::int64_t generation,
                                       const std::function<bool(const LockedItem&)>& only,
                                       const std::function<void(const LockedItem&)>& moving);
    void recoverLock(JournalEntry entry, RecoveryReport& report) const;
    // Gives an original that changed back its name, or, when that is taken, a free one beside
    // it; the locked copy stays. Returns the name it now has.
    static std::string keepOriginal(const Folder& folder, const std::string& movedName,
                                    const std::string& name);
    // Takes back a lock whose item became visible but whose original changed before it could
    // go: the image returns to its partial name and is removed with its record and entry.
    void undoVisibleLock(const Folder& folder, const JournalEntry& entry,
                         const std::string& finalName, const std::string& mountPoint) const;
    void recoverRestore(const JournalEntry& entry, RecoveryReport& report) const;
    // Closes by force the image an interrupted operation worked on, where it attached it, and ends
    // the processes still working on it; the mount point goes too unless `finished` (a finished
    // lock's item may be open there).
    void closeWorkOf(const JournalEntry& entry, bool finished) const;
    void crashIf(CrashPoint point) const {
        if (crashPoint == point) throw SimulatedCrash();
    }
    // cp -a through the runner; `folder` is the descriptor-held folder `source` is anchored in,
    // named by its path in a failure's report. `written` hears, a few times a second, each new
    // highest count of bytes cp has written.
    void copy(const std::string& source, const std::string& destination, const CancelToken* cancel,
              const Folder& folder,
              const std::function<void(std::int64_t written)>& written = nullptr) const;
    // Undoes a failed operation before its result was visible: the image is closed by force, the
    // mount point and the work in progress (`work` in `folder`) removed, and the journal entry
    // dropped only when all of that worked, so that recovery finds what is left. The caller
    // rethrows the first error.
    void abandon(const std::string& mountPoint, const Folder& folder, const std::string& work,
                 const Uuid& id) const;
    // Closes an image attached at `mountPoint` by force and removes the mount point; true when
    // nothing is left attached there.
    bool closeAndForget(const std::string& mountPoint) const;
};

}  // namespace corvane
