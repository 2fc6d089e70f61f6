// What the user is told once after interrupted work was settled: a title and a body.
#pragma once

#include <string>

namespace corvane {

struct RecoveryNotice {
    std::string title;
    std::string body;

    bool operator==(const RecoveryNotice&) const = default;
};

}  // namespace corvane
