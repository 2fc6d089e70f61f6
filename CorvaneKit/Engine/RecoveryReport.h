// What crash recovery did, counted: each journal entry lands in exactly one counter. A value; the
// notice built from it is the only text the user sees about it.
#pragma once

#include <cstdint>
#include <optional>

#include "Engine/RecoveryNotice.h"

namespace corvane {

struct RecoveryReport {
    std::int64_t finishedLocks = 0;
    std::int64_t discardedLocks = 0;
    std::int64_t finishedRestores = 0;
    std::int64_t discardedRestores = 0;
    std::int64_t detachedStale = 0;
    std::int64_t keptChangedOriginals = 0;
    std::int64_t keptForLater = 0;
    bool indexWasDamaged = false;
    bool journalWasDamaged = false;

    bool operator==(const RecoveryReport&) const = default;

    // Nothing when there is nothing to tell; forgotten mounts are closed silently.
    std::optional<RecoveryNotice> notice() const;
};

}  // namespace corvane
