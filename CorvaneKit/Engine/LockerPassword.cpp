// Moving every locked item to a new password, one image at a time. The index is the record of
// progress: each item's generation is written as soon as its image is re-keyed, so an interruption
// leaves every item clearly on its old or its new password.
#include <map>

#include "Engine/Locker.h"
#include "Records/CorvaneError.h"

namespace corvane {

std::map<Uuid, CorvaneError> Locker::changePassword(
    const std::string& from, const std::string& to, std::int64_t generation,
    const std::function<void(const LockedItem&)>& moving) {
    return rekey(from, to, generation, nullptr, moving);
}

std::map<Uuid, CorvaneError> Locker::rekey(const std::string& from, const std::string& to,
                                           std::int64_t generation,
                                           const std::function<bool(const LockedItem&)>& only,
                                           const std::function<void(const LockedItem&)>& moving) {
    requireUsablePassword(from);
    requireUsablePassword(to);
    // An open image cannot be re-keyed safely.
    if (!openItems().empty()) throw CorvaneError::needsAllLocked();
    std::map<Uuid, CorvaneError> failures;
    bool movedOne = false;
    for (LockedItem item : index.load()) {
        if (item.passwordGeneration >= generation || (only && !only(item))) continue;
        if (moving) moving(item);
        auto image = ItemIndex::locate(item);
        if (!image) {
            failures.emplace(item.id, CorvaneError::notFound());
            continue;
        }
        auto attempt = [&](const std::string& old) -> std::optional<CorvaneError> {
            try {
                tool->changePassword(*image, old, to);
                return std::nullopt;
            } catch (const CorvaneError& error) {
                return error;
            } catch (const std::exception& error) {
                return CorvaneError::diskImage(error.what());
            }
        };
        // An image an interrupted earlier run already re-keyed opens with the new password.
        if (auto first = attempt(from); first && attempt(to)) {
            failures.emplace(item.id, *first);
            continue;
        }
        item.passwordGeneration = generation;
        index.upsert(item);
        if (movedOne) continue;
        movedOne = true;
        crashIf(CrashPoint::passwordAfterFirstItem);
    }
    return failures;
}

std::vector<std::string> Locker::itemsStillMigrating(std::int64_t generation) const {
    std::vector<std::string> names;
    for (const auto& item : index.load())
        if (item.passwordGeneration < generation) names.push_back(item.displayName);
    return names;
}

std::map<Uuid, CorvaneError> Locker::finishMigration(const StoredSecret& secret) {
    // An item found again after it was forgotten comes back with no known generation: it most
    // likely opens with the current password, which is tried on it before any earlier one.
    std::map<Uuid, CorvaneError> failures = rekey(
        secret.password, secret.password, secret.generation,
        [](const LockedItem& item) { return item.passwordGeneration == 0; }, nullptr);
    for (const auto& earlier : secret.openCandidates()) {
        if (earlier == secret.password) continue;
        failures = changePassword(earlier, secret.password, secret.generation);
        if (failures.empty()) break;
    }
    return failures;
}

}  // namespace corvane
