// Named moments between two durable steps at which tests make an operation stop as if the process
// had died, to prove that recovery finds the disk in a state it can finish or undo.
#pragma once

#include <array>
#include <exception>
#include <optional>
#include <string_view>

namespace corvane {

enum class CrashPoint {
    lockAfterCreate,
    lockAfterCopy,
    lockAfterVerify,
    lockBeforeRename,
    lockAfterMove,
    lockAfterRename,
    lockAfterRenameToDeleting,
    lockAfterDeleteOriginal,
    restoreAfterCopy,
    restoreBeforeRename,
    restoreAfterRename,
    restoreAfterDeleteLocked,
    passwordAfterFirstItem,
};

struct CrashPoints {
    static constexpr std::array all = {
        CrashPoint::lockAfterCreate,
        CrashPoint::lockAfterCopy,
        CrashPoint::lockAfterVerify,
        CrashPoint::lockBeforeRename,
        CrashPoint::lockAfterMove,
        CrashPoint::lockAfterRename,
        CrashPoint::lockAfterRenameToDeleting,
        CrashPoint::lockAfterDeleteOriginal,
        CrashPoint::restoreAfterCopy,
        CrashPoint::restoreBeforeRename,
        CrashPoint::restoreAfterRename,
        CrashPoint::restoreAfterDeleteLocked,
        CrashPoint::passwordAfterFirstItem,
    };
    static std::string_view rawValue(CrashPoint point);
    static std::optional<CrashPoint> fromRawValue(std::string_view raw);
};

// Thrown at a crash point. Never cleaned up after: it stands for the process dying there.
struct SimulatedCrash : std::exception {
    const char* what() const noexcept override { return "simulated crash"; }
};

}  // namespace corvane
