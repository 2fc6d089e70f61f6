// What the user is told about items a password change could not move yet.
#pragma once

#include <string>
#include <vector>

#include "Records/CorvaneError.h"

namespace corvane::cli {

// `names` of the items, or when none can be named, their count.
inline std::string migrationFailureMessage(const std::vector<std::string>& names,
                                           std::size_t count) {
    std::string subject = !names.empty()
                              ? CorvaneError::list(names)
                              : std::to_string(count) + (count == 1 ? " item" : " items");
    return subject + " could not be updated yet. Corvane will try again next time it opens.";
}

}  // namespace corvane::cli
