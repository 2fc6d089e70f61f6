// Shows the steps of a long engine operation on standard error: one line rewritten in place on a
// terminal, one plain line per step for a log or a pipe. Used from the thread that runs the
// operation.
#pragma once

#include <ostream>
#include <string>

#include "Engine/LockStep.h"
#include "Engine/Locker.h"

namespace corvane::cli {

class ProgressReporter {
public:
    // `name` is the item as the user knows it, for the steps that name it.
    ProgressReporter(std::ostream& err, bool terminal, std::string name)
        : err_(err), terminal_(terminal), name_(std::move(name)) {}
    ~ProgressReporter() { finish(); }
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    void show(LockStep step);
    Locker::Progress callback() {
        return [this](LockStep step) { show(step); };
    }

    // Clears the terminal line, so that what comes next starts on a clean line.
    void finish();

private:
    std::ostream& err_;
    bool terminal_;
    std::string name_;
    std::string lastMessage_;
    bool lineShown_ = false;
};

}  // namespace corvane::cli
