#include "ProgressReporter.h"

namespace corvane::cli {

std::string ProgressReporter::message(LockStep step, const std::string& name) {
    switch (step) {
        case LockStep::preparing: return "Getting " + name + " ready…";
        case LockStep::downloading: return "Downloading " + name + " from iCloud…";
        case LockStep::encrypting: return "Encrypting " + name + "…";
        case LockStep::verifying: return "Checking every file in " + name + "…";
        case LockStep::removingOriginal: return "Removing the unlocked original…";
        case LockStep::restoring: return "Restoring " + name + "…";
        case LockStep::finishing: return "Finishing up…";
    }
    return {};
}

void ProgressReporter::show(LockStep step) {
    std::string text = message(step, name_);
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
