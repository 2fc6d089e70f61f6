// A request that reaches the application from outside: what to do, and to which paths. A plain
// value, compared by value.
#pragma once

#include <string>
#include <vector>

namespace corvane {

struct CorvaneCommand {
    enum class Kind { lock, unlock, lockNow, removeLock, reveal };

    Kind kind = Kind::lock;
    // Several for lock and lockNow, exactly one for the others.
    std::vector<std::string> paths;

    bool operator==(const CorvaneCommand&) const = default;
};

}  // namespace corvane
