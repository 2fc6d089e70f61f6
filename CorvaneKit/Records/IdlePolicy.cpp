#include "Records/IdlePolicy.h"

#include <algorithm>
#include <cstdint>

#include "Records/FatalError.h"

namespace corvane {

bool IdlePolicy::isChoice(int minutes) {
    return std::find(choices.begin(), choices.end(), minutes) != choices.end();
}

bool IdlePolicy::shouldLock(double idleSeconds, int minutes, bool hasUnlockedItems) {
    if (!hasUnlockedItems || minutes < 1) return false;
    std::int64_t seconds = 0;
    if (__builtin_mul_overflow(std::int64_t(minutes), std::int64_t(60), &seconds))
        fatalError("idle limit overflows");
    return idleSeconds >= static_cast<double>(seconds);
}

}  // namespace corvane

namespace corvane {

std::chrono::seconds IdlePolicy::unusedLimit(int minutes) {
    return minutes < 1 ? std::chrono::seconds(0) : std::chrono::minutes(minutes);
}

}  // namespace corvane
