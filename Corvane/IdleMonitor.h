// How long the user has been away, asked of the desktop: Mutter's idle monitor first, then the
// freedesktop screen saver on the session bus, then the X server. Every question is asynchronous and given up after
// half a second, so a missing or hung service costs nothing. Main thread only.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <cstddef>
#include <functional>
#include <optional>

namespace corvane::app {

class IdleMonitor : public QObject {
    Q_OBJECT

public:
    // The idle time in seconds; nothing when no source gave a usable answer.
    using Answer = std::function<void(std::optional<double> seconds)>;

    explicit IdleMonitor(QDBusConnection session, QObject* parent = nullptr);

    // Calls `answer` exactly once, unless the monitor is destroyed first.
    void ask(Answer answer);

private:
    void askSource(std::size_t index, Answer answer);

    QDBusConnection session_;
};

}  // namespace corvane::app
