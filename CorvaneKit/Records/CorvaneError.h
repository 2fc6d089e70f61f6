// The one error the engine reports to the user. Each case carries what its sentence needs, and
// the sentence is built here, nowhere else. A value: copy it freely between threads.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Records/LockRefusal.h"
#include "Records/TreeMismatch.h"
#include "Records/Wording.h"

namespace corvane {

class CorvaneError : public std::exception {
public:
    enum class Case {
        notEnoughSpace,
        inUse,
        diskImage,
        copyFailed,
        verificationFailed,
        restoreVerificationFailed,
        refused,
        lockedButOriginalRemains,
        lockedButRemovalUnfinished,
        stillInICloud,
        containsUnlockedItem,
        containsMountedDisk,
        containsAppleDouble,
        finderLocked,
        containsFinderLocked,
        hardLinked,
        wrongPassword,
        notLocked,
        notFound,
        cancelled,
        needsAllLocked,
        changedWhileLocking,
    };

    struct SpaceShortfall {
        std::int64_t needed;
        std::int64_t available;
        bool operator==(const SpaceShortfall&) const = default;
    };

    // Whatever the case carries: nothing, byte counts, application names, a text (a tool's report
    // or an item's display name), tree differences or a refusal.
    using Payload = std::variant<std::monostate, SpaceShortfall, std::vector<std::string>,
                                 std::string, std::vector<TreeMismatch>, LockRefusal>;

    struct Notice {
        std::string title;
        std::string message;
        bool operator==(const Notice&) const = default;
    };

    static CorvaneError notEnoughSpace(std::int64_t needed, std::int64_t available);
    static CorvaneError inUse(std::vector<std::string> apps);
    static CorvaneError diskImage(std::string report);
    static CorvaneError copyFailed(std::string report);
    static CorvaneError verificationFailed(std::vector<TreeMismatch> mismatches);
    static CorvaneError restoreVerificationFailed(std::vector<TreeMismatch> mismatches);
    static CorvaneError refused(LockRefusal refusal);
    static CorvaneError lockedButOriginalRemains(std::string name);
    static CorvaneError lockedButRemovalUnfinished(std::string name);
    static CorvaneError stillInICloud(std::string name);
    static CorvaneError containsUnlockedItem(std::string name);
    static CorvaneError containsMountedDisk(std::string name);
    static CorvaneError containsAppleDouble(std::string name);
    static CorvaneError finderLocked(std::string name);
    static CorvaneError containsFinderLocked(std::string name);
    static CorvaneError hardLinked(std::string name);
    static CorvaneError wrongPassword();
    static CorvaneError notLocked();
    static CorvaneError notFound();
    static CorvaneError cancelled();
    static CorvaneError needsAllLocked();
    static CorvaneError changedWhileLocking();

    Case errorCase() const { return case_; }
    // Whether `failure` is a CorvaneError of `errorCase`.
    static bool is(const std::exception_ptr& failure, Case errorCase);
    const Payload& payload() const { return payload_; }

    // The sentence shown to the user, in the host's wording.
    const std::string& errorDescription() const { return description_; }
    std::string message(const Wording& wording) const;
    const char* what() const noexcept override { return description_.c_str(); }

    // The softer notice for the two cases in which locking succeeded but cleaning up did not.
    std::optional<Notice> lockedNotice() const;

    // A, B and C: no comma before the final "and".
    static std::string list(const std::vector<std::string>& names);

    bool operator==(const CorvaneError& other) const {
        return case_ == other.case_ && payload_ == other.payload_;
    }

private:
    CorvaneError(Case errorCase, Payload payload);

    Case case_;
    Payload payload_;
    std::string description_;
};

}  // namespace corvane
