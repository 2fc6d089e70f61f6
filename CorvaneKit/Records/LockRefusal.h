// Why an item may not be locked. The raw value of each case is its name; the message is the
// sentence the user sees.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "Records/Wording.h"

namespace corvane {

enum class LockRefusal {
    doesNotExist,
    systemLocation,
    homeFolder,
    standardFolder,
    libraryFolder,
    application,
    corvaneItself,
    corvaneRecords,
    volumeRoot,
    networkVolume,
    alreadyLocked,
    insideUnlockedItem,
    insideLockedItem,
    tooLarge,
    shortcut,
    // Linux only: what the records or an image's volume cannot hold.
    nameNotText,
    holdsReservedName,
    // A link given to unlock or remove the lock, which would act on whatever it points at.
    lockedItemShortcut,
    // The locked item is made beside the item: its folder must be open to changes.
    folderNotWritable,
    // What a copy made as the user could not read, or reach within the system's path limit.
    holdsUnreadable,
    nestedTooDeeply,
    // Another Corvane, with other records, works on the item or has it open.
    busyElsewhere,
    openElsewhere,
};

struct LockRefusals {
    static constexpr std::array all = {
        LockRefusal::doesNotExist,      LockRefusal::systemLocation,
        LockRefusal::homeFolder,        LockRefusal::standardFolder,
        LockRefusal::libraryFolder,     LockRefusal::application,
        LockRefusal::corvaneItself,     LockRefusal::corvaneRecords,
        LockRefusal::volumeRoot,        LockRefusal::networkVolume,
        LockRefusal::alreadyLocked,     LockRefusal::insideUnlockedItem,
        LockRefusal::insideLockedItem,  LockRefusal::tooLarge,
        LockRefusal::shortcut,          LockRefusal::nameNotText,
        LockRefusal::holdsReservedName, LockRefusal::lockedItemShortcut,
        LockRefusal::folderNotWritable, LockRefusal::holdsUnreadable,
        LockRefusal::nestedTooDeeply,   LockRefusal::busyElsewhere,
        LockRefusal::openElsewhere,
    };

    static std::string_view rawValue(LockRefusal refusal);
    static std::optional<LockRefusal> fromRawValue(std::string_view raw);
    static std::string_view message(LockRefusal refusal, const Wording& wording = Wording::host());
};

}  // namespace corvane
