#include "Engine/CrashPoint.h"

namespace corvane {

std::string_view CrashPoints::rawValue(CrashPoint point) {
    switch (point) {
        case CrashPoint::lockAfterCreate: return "lockAfterCreate";
        case CrashPoint::lockAfterCopy: return "lockAfterCopy";
        case CrashPoint::lockAfterVerify: return "lockAfterVerify";
        case CrashPoint::lockBeforeRename: return "lockBeforeRename";
        case CrashPoint::lockAfterMove: return "lockAfterMove";
        case CrashPoint::lockAfterRename: return "lockAfterRename";
        case CrashPoint::lockAfterRenameToDeleting: return "lockAfterRenameToDeleting";
        case CrashPoint::lockAfterDeleteOriginal: return "lockAfterDeleteOriginal";
        case CrashPoint::restoreAfterCopy: return "restoreAfterCopy";
        case CrashPoint::restoreBeforeRename: return "restoreBeforeRename";
        case CrashPoint::restoreAfterRename: return "restoreAfterRename";
        case CrashPoint::restoreAfterDeleteLocked: return "restoreAfterDeleteLocked";
        case CrashPoint::passwordAfterFirstItem: return "passwordAfterFirstItem";
    }
    return {};
}

std::optional<CrashPoint> CrashPoints::fromRawValue(std::string_view raw) {
    for (CrashPoint point : all)
        if (rawValue(point) == raw) return point;
    return std::nullopt;
}

}  // namespace corvane
