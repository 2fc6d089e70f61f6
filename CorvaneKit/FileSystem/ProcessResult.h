// What a finished child process left: its status, everything it wrote (standard output and error
// merged, as delivered), and whether the runner ended it for running past its time.
#pragma once

#include <string>

namespace corvane {

struct ProcessResult {
    int status = 0;  // the exit code, or the signal that ended the child
    std::string output;
    bool timedOut = false;

    bool operator==(const ProcessResult&) const = default;
};

}  // namespace corvane
