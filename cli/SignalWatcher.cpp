#include "SignalWatcher.h"

#include <pthread.h>
#include <signal.h>

namespace corvane::cli {

namespace {

constexpr int kWakeSignal = SIGUSR1;

sigset_t watchedSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, kWakeSignal}) sigaddset(&signals, signal);
    return signals;
}

}  // namespace

void SignalWatcher::blockSignals() {
    sigset_t signals = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

SignalWatcher::SignalWatcher(CancelToken& cancel) : cancel_(cancel) {
    thread_ = std::thread([this] { watch(); });
}

SignalWatcher::~SignalWatcher() {
    stopping_ = true;
    pthread_kill(thread_.native_handle(), kWakeSignal);
    thread_.join();
}

void SignalWatcher::watch() {
    sigset_t signals = watchedSignals();
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) continue;
        if (signal == kWakeSignal) {
            // A SIGUSR1 from elsewhere is not a reason to stop watching.
            if (stopping_) return;
            continue;
        }
        cancel_.cancel();
    }
}

}  // namespace corvane::cli
