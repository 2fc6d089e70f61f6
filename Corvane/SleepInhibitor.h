// A logind delay lock on sleep and shutdown, held while items are unlocked so that they can lock
// before the computer goes down. logind hands out a file descriptor: holding it open holds the
// lock, closing it lets the sleep go on. Main thread only.
#pragma once

#include <QDBusConnection>
#include <QObject>

namespace corvane::app {

class SleepInhibitor : public QObject {
    Q_OBJECT

public:
    explicit SleepInhibitor(QDBusConnection system, QObject* parent = nullptr);
    ~SleepInhibitor() override;

    // Whether items are unlocked: a lock is held only then.
    void setWanted(bool wanted);
    // logind announced sleep or shutdown: the lock held now stays until release().
    void suspending();
    // The items were locked (or could not be) for the announced sleep: let it go on.
    void release();
    // Back from sleep, or the shutdown was called off.
    void resumed();

    bool held() const { return descriptor_ >= 0; }

private:
    void update();
    void close();

    QDBusConnection system_;
    int descriptor_ = -1;
    bool wanted_ = false;
    bool suspending_ = false;
    bool asking_ = false;
};

}  // namespace corvane::app
