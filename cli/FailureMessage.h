// The one line a failed command prints on standard error, for whatever the command threw. Shared
// by the dispatcher and by the commands that carry on after one item fails.
#pragma once

#include <exception>
#include <string>

namespace corvane::cli {

// An engine error or a command failure as its sentence alone; anything else after "corvane: ".
std::string failureMessage(const std::exception_ptr& failure);

}  // namespace corvane::cli
