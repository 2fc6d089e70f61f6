// A failure of the command itself, not of the engine, whose message is a complete sentence for the
// user; it is printed as it stands and the command ends with status 1.
#pragma once

#include <stdexcept>

namespace corvane::cli {

class CommandFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace corvane::cli
