// When inactivity locks the open items, and the limits the settings offer. Pure; no state.
#pragma once

#include <array>
#include <chrono>

namespace corvane {

struct IdlePolicy {
    // In minutes, in the order offered; 0 means inactivity never locks.
    static constexpr std::array<int, 5> choices = {5, 15, 30, 60, 0};

    static bool isChoice(int minutes);
    static bool shouldLock(double idleSeconds, int minutes, bool hasUnlockedItems);
    // How long an open item may go unused before it closes itself, for the limit `minutes`; zero
    // when inactivity never locks.
    static std::chrono::seconds unusedLimit(int minutes);
};

}  // namespace corvane
