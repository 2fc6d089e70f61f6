// Turns Ctrl-C, SIGTERM and SIGHUP into the user's Cancel. The signals stay blocked in every thread
// and one thread takes them with sigwait, so the engine is never interrupted in the middle of a
// step: it notices the cancel token between units of work and cleans up.
#pragma once

#include <atomic>
#include <thread>

#include "FileSystem/CancelToken.h"

namespace corvane::cli {

class SignalWatcher {
public:
    // Call in main before any other thread starts: threads inherit the mask of their creator.
    static void blockSignals();

    explicit SignalWatcher(CancelToken& cancel);
    // Wakes the thread (with SIGUSR1, which it also waits for) and joins it.
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

private:
    void watch();

    CancelToken& cancel_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace corvane::cli
