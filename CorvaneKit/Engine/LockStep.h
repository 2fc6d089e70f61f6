// The stages a long operation reports to its progress callback, in the order they can occur.
#pragma once

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
};

}  // namespace corvane
