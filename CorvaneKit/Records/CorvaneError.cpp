#include "Records/CorvaneError.h"

#include "Records/ByteCount.h"

namespace corvane {

CorvaneError::CorvaneError(Case errorCase, Payload payload)
    : case_(errorCase), payload_(std::move(payload)), description_(message(Wording::host())) {}

CorvaneError CorvaneError::notEnoughSpace(std::int64_t needed, std::int64_t available) {
    return {Case::notEnoughSpace, SpaceShortfall{needed, available}};
}
CorvaneError CorvaneError::inUse(std::vector<std::string> apps) {
    return {Case::inUse, std::move(apps)};
}
CorvaneError CorvaneError::diskImage(std::string report) {
    return {Case::diskImage, std::move(report)};
}
CorvaneError CorvaneError::copyFailed(std::string report) {
    return {Case::copyFailed, std::move(report)};
}
CorvaneError CorvaneError::verificationFailed(std::vector<TreeMismatch> mismatches) {
    return {Case::verificationFailed, std::move(mismatches)};
}
CorvaneError CorvaneError::restoreVerificationFailed(std::vector<TreeMismatch> mismatches) {
    return {Case::restoreVerificationFailed, std::move(mismatches)};
}
CorvaneError CorvaneError::refused(LockRefusal refusal) {
    return {Case::refused, refusal};
}
CorvaneError CorvaneError::lockedButOriginalRemains(std::string name) {
    return {Case::lockedButOriginalRemains, std::move(name)};
}
CorvaneError CorvaneError::lockedButRemovalUnfinished(std::string name) {
    return {Case::lockedButRemovalUnfinished, std::move(name)};
}
CorvaneError CorvaneError::stillInICloud(std::string name) {
    return {Case::stillInICloud, std::move(name)};
}
CorvaneError CorvaneError::containsUnlockedItem(std::string name) {
    return {Case::containsUnlockedItem, std::move(name)};
}
CorvaneError CorvaneError::containsMountedDisk(std::string name) {
    return {Case::containsMountedDisk, std::move(name)};
}
CorvaneError CorvaneError::containsAppleDouble(std::string name) {
    return {Case::containsAppleDouble, std::move(name)};
}
CorvaneError CorvaneError::finderLocked(std::string name) {
    return {Case::finderLocked, std::move(name)};
}
CorvaneError CorvaneError::containsFinderLocked(std::string name) {
    return {Case::containsFinderLocked, std::move(name)};
}
CorvaneError CorvaneError::hardLinked(std::string name) {
    return {Case::hardLinked, std::move(name)};
}
CorvaneError CorvaneError::wrongPassword() {
    return {Case::wrongPassword, {}};
}
CorvaneError CorvaneError::notLocked() {
    return {Case::notLocked, {}};
}
CorvaneError CorvaneError::notFound() {
    return {Case::notFound, {}};
}
CorvaneError CorvaneError::cancelled() {
    return {Case::cancelled, {}};
}
CorvaneError CorvaneError::needsAllLocked() {
    return {Case::needsAllLocked, {}};
}
CorvaneError CorvaneError::changedWhileLocking() {
    return {Case::changedWhileLocking, {}};
}

std::string CorvaneError::message(const Wording& wording) const {
    auto text = [this]() -> const std::string& { return std::get<std::string>(payload_); };
    auto differences = [this](const char* before, const char* after) {
        auto count = std::get<std::vector<TreeMismatch>>(payload_).size();
        return before + std::to_string(count) + " difference" + (count == 1 ? "" : "s") + after;
    };
    switch (case_) {
        case Case::notEnoughSpace: {
            auto [needed, available] = std::get<SpaceShortfall>(payload_);
            return "Not enough free space. Corvane needs " + ByteCount::file(needed) +
                   ", but only " + ByteCount::file(available) + " is free.";
        }
        case Case::inUse: {
            auto& apps = std::get<std::vector<std::string>>(payload_);
            if (apps.empty()) return "Some files are still open. Close them, then try again.";
            return "Files are still open in " + list(apps) + ". Close them, then try again.";
        }
        case Case::diskImage: return std::string(wording.diskImagePrefix) + text();
        case Case::copyFailed: return "Copying failed: " + text();
        case Case::verificationFailed:
            return differences("The locked copy did not match the original (",
                               "), so nothing was changed.");
        case Case::restoreVerificationFailed:
            return differences("The restored copy did not match the locked item (",
                               "), so nothing was changed. The item is still locked.");
        case Case::refused:
            return std::string(LockRefusals::message(std::get<LockRefusal>(payload_), wording));
        case Case::lockedButOriginalRemains:
            return text() +
                   " is locked, but Corvane could not remove the unlocked original. It will try again next time it "
                   "opens.";
        case Case::lockedButRemovalUnfinished:
            return text() +
                   " is locked, but Corvane could not finish removing the unlocked original. It will finish next "
                   "time it opens.";
        case Case::stillInICloud:
            return "Some files in " + text() +
                   " are still in iCloud. Download them first, then try again.";
        case Case::containsUnlockedItem:
            return text() + " contains an unlocked Corvane item. Lock it first.";
        case Case::containsMountedDisk:
            return text() + " contains a mounted disk image. Eject it, then try again.";
        case Case::containsAppleDouble:
            return text() +
                   " contains hidden macOS metadata files (their names start with ._) that Corvane cannot lock "
                   "safely. Remove them, then try again.";
        case Case::finderLocked: return text() + std::string(wording.finderLockedSuffix);
        case Case::containsFinderLocked:
            return text() + std::string(wording.containsFinderLockedSuffix);
        case Case::hardLinked:
            return text() +
                   " has another copy linked to it elsewhere, so Corvane cannot lock it safely.";
        case Case::wrongPassword: return "That password did not work.";
        case Case::notLocked: return "This is not a Corvane locked item.";
        case Case::notFound: return "That item could not be found.";
        case Case::cancelled: return "Cancelled. Nothing was changed.";
        case Case::needsAllLocked: return "Lock every unlocked item first.";
        case Case::changedWhileLocking:
            return "The item changed while it was being locked, so nothing was changed. Try again.";
    }
    return {};
}

std::optional<CorvaneError::Notice> CorvaneError::lockedNotice() const {
    switch (case_) {
        case Case::lockedButOriginalRemains:
            return Notice{"The unlocked original is still there", description_};
        case Case::lockedButRemovalUnfinished:
            return Notice{
                std::get<std::string>(payload_) + " is locked",
                "Corvane could not finish removing the unlocked original. It will finish next time it "
                "opens."};
        default: return std::nullopt;
    }
}

std::string CorvaneError::list(const std::vector<std::string>& names) {
    std::string joined;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0) joined += (i + 1 == names.size()) ? " and " : ", ";
        joined += names[i];
    }
    return joined;
}

bool CorvaneError::is(const std::exception_ptr& failure, Case errorCase) {
    try {
        std::rethrow_exception(failure);
    } catch (const CorvaneError& error) {
        return error.errorCase() == errorCase;
    } catch (...) {
        return false;
    }
}

}  // namespace corvane
