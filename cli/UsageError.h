// A command line that cannot be run as written. The dispatcher prints the reason and a short
// usage text and ends with status 2, the convention for a misused command.
#pragma once

#include <stdexcept>

namespace corvane::cli {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace corvane::cli
