// The stages a long operation reports to its progress callback, in the order they can occur.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

enum class LockStep {
    preparing,
    downloading,
    encrypting,
    verifying,
    removingOriginal,
    restoring,
    finishing
};

struct LockSteps {
    static constexpr std::string_view rawValue(LockStep step) {
        switch (step) {
            case LockStep::preparing: return "preparing";
            case LockStep::downloading: return "downloading";
            case LockStep::encrypting: return "encrypting";
            case LockStep::verifying: return "verifying";
            case LockStep::removingOriginal: return "removingOriginal";
            case LockStep::restoring: return "restoring";
            case LockStep::finishing: return "finishing";
        }
        return {};
    }

    // What a progress display says while an operation on the item called `name` is at `step`.
    static std::string message(LockStep step, const std::string& name) {
        switch (step) {
            case LockStep::preparing: return "Getting " + name + " ready…";
            case LockStep::downloading: return "Downloading " + name + " from iCloud…";
            case LockStep::encrypting: return "Encrypting " + name + "…";
            case LockStep::verifying: return "Checking every file in " + name + "…";
            case LockStep::removingOriginal: return "Removing the unlocked original…";
            case LockStep::restoring: return "Restoring " + name + "…";
            case LockStep::finishing: return "Finishing up…";
        }
        return {};
    }
};

}  // namespace corvane
