#include "ProgressReporter.h"

namespace corvane::cli {

void ProgressReporter::show(LockStep step) {
    std::string text = LockSteps::message(step, name_);
    // A step reported twice in a row would only repeat the line.
    if (text == lastMessage_) return;
    lastMessage_ = text;
    if (terminal_) {
        err_ << '\r' << text << "\033[K" << std::flush;
        lineShown_ = true;
    } else {
        err_ << text << '\n' << std::flush;
    }
}

void ProgressReporter::finish() {
    if (!lineShown_) return;
    err_ << "\r\033[K" << std::flush;
    lineShown_ = false;
}

}  // namespace corvane::cli
