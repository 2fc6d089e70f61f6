#include "Records/LockRefusal.h"

namespace corvane {

std::string_view LockRefusals::rawValue(LockRefusal refusal) {
    switch (refusal) {
        case LockRefusal::doesNotExist: return "doesNotExist";
        case LockRefusal::systemLocation: return "systemLocation";
        case LockRefusal::homeFolder: return "homeFolder";
        case LockRefusal::standardFolder: return "standardFolder";
        case LockRefusal::libraryFolder: return "libraryFolder";
        case LockRefusal::application: return "application";
        case LockRefusal::corvaneItself: return "corvaneItself";
        case LockRefusal::corvaneRecords: return "corvaneRecords";
        case LockRefusal::volumeRoot: return "volumeRoot";
        case LockRefusal::networkVolume: return "networkVolume";
        case LockRefusal::alreadyLocked: return "alreadyLocked";
        case LockRefusal::insideUnlockedItem: return "insideUnlockedItem";
        case LockRefusal::insideLockedItem: return "insideLockedItem";
        case LockRefusal::tooLarge: return "tooLarge";
        case LockRefusal::shortcut: return "shortcut";
        case LockRefusal::nameNotText: return "nameNotText";
        case LockRefusal::holdsReservedName: return "holdsReservedName";
        case LockRefusal::lockedItemShortcut: return "lockedItemShortcut";
        case LockRefusal::folderNotWritable: return "folderNotWritable";
        case LockRefusal::holdsUnreadable: return "holdsUnreadable";
        case LockRefusal::nestedTooDeeply: return "nestedTooDeeply";
        case LockRefusal::busyElsewhere: return "busyElsewhere";
        case LockRefusal::openElsewhere: return "openElsewhere";
    }
    return {};
}

std::optional<LockRefusal> LockRefusals::fromRawValue(std::string_view raw) {
    for (LockRefusal refusal : all)
        if (rawValue(refusal) == raw) return refusal;
    return std::nullopt;
}

std::string_view LockRefusals::message(LockRefusal refusal, const Wording& wording) {
    switch (refusal) {
        case LockRefusal::doesNotExist: return "That item no longer exists.";
        case LockRefusal::systemLocation: return wording.systemLocation;
        case LockRefusal::homeFolder:
            return "Corvane does not lock your whole home folder. Lock the folders inside it instead.";
        case LockRefusal::standardFolder:
            return "Corvane does not lock your whole Desktop, Documents or Downloads folder. Lock the items "
                   "inside it instead.";
        case LockRefusal::libraryFolder: return wording.libraryFolder;
        case LockRefusal::application: return "Corvane does not lock apps.";
        case LockRefusal::corvaneItself: return "Corvane cannot lock itself.";
        case LockRefusal::corvaneRecords:
            return "This is or holds Corvane's own records, so Corvane cannot lock it.";
        case LockRefusal::volumeRoot:
            return "Corvane does not lock whole drives. Lock the folders on the drive instead.";
        case LockRefusal::networkVolume: return "Corvane does not lock items on network drives.";
        case LockRefusal::alreadyLocked: return "This item is already locked.";
        case LockRefusal::insideUnlockedItem:
            return "This is inside an unlocked Corvane item, which is already protected.";
        case LockRefusal::insideLockedItem:
            return "This is inside a locked item or a disk image, so Corvane cannot lock it.";
        case LockRefusal::tooLarge: return "Corvane locks items up to 2 TB.";
        case LockRefusal::shortcut:
            return "This is a shortcut to another item. Lock the original instead.";
        case LockRefusal::nameNotText:
            return "Corvane can only lock items whose name and folders are named in valid text "
                   "(UTF-8). Rename them, then try again.";
        case LockRefusal::holdsReservedName:
            return "This folder holds a file named .corvane-item.json or .metadata_never_index at "
                   "its top, names Corvane keeps for itself. Rename or move that file, then try "
                   "again.";
        case LockRefusal::lockedItemShortcut:
            return "This is a shortcut to a locked item. Choose the locked item itself instead.";
        case LockRefusal::folderNotWritable:
            return "Corvane cannot write in the folder that holds this item; move the item to a "
                   "folder you can change, then try again.";
        case LockRefusal::holdsUnreadable:
            return "Corvane cannot read some of the files or folders in this item; give yourself "
                   "permission to read them, then try again.";
        case LockRefusal::nestedTooDeeply:
            return "This item holds folders nested too deeply for Linux to copy; move the deepest "
                   "ones nearer the top or shorten their names, then try again.";
        case LockRefusal::busyElsewhere:
            return "Another Corvane is already working on this item; wait for it to finish, then "
                   "try again.";
        case LockRefusal::openElsewhere:
            return "This item is open in another Corvane; lock it there, then try again.";
    }
    return {};
}

}  // namespace corvane
