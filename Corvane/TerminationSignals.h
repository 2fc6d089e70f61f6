// SIGTERM, SIGHUP and SIGINT, as the session sends them at logout and a terminal at Ctrl-C or
// hang-up, turned into a signal on the main thread: the handler only writes a byte to a pipe that
// the event loop watches. One object per process.
#pragma once

#include <QObject>

class QSocketNotifier;

namespace corvane::app {

class TerminationSignals : public QObject {
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;

signals:
    void received();

private:
    void drain();

    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace corvane::app
