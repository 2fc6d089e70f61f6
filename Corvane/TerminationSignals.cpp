#include "TerminationSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <cerrno>

namespace corvane::app {

namespace {

int pipeEnds[2] = {-1, -1};
constexpr int kSignals[] = {SIGTERM, SIGHUP, SIGINT};

void onSignal(int) {
    int saved = errno;
    // A full pipe already says that a signal came.
    (void)!write(pipeEnds[1], "x", 1);
    errno = saved;
}

}  // namespace

TerminationSignals::TerminationSignals(QObject* parent) : QObject(parent) {
    if (pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    notifier_ = new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &TerminationSignals::drain);
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : kSignals) sigaction(signal, &action, nullptr);
}

TerminationSignals::~TerminationSignals() {
    if (!notifier_) return;
    for (int signal : kSignals) ::signal(signal, SIG_DFL);
    delete notifier_;
    close(pipeEnds[0]);
    close(pipeEnds[1]);
    pipeEnds[0] = pipeEnds[1] = -1;
}

void TerminationSignals::drain() {
    char bytes[64];
    while (read(pipeEnds[0], bytes, sizeof bytes) > 0) {
    }
    emit received();
}

}  // namespace corvane::app
