// Says when unlocked items should lock again because the user walked away: the screen locked,
// the computer is about to sleep, the session ended or went inactive, or the desktop reports
// idleness past the user's limit. Listens to logind on the system bus and to the screen savers
// on the session bus; asks only asynchronously. Owned by the model; main thread only.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QTimer>
#include <QVariantMap>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "IdleMonitor.h"
#include "Records/UserSettings.h"
#include "SleepInhibitor.h"

namespace corvane::app {

class AutoLock : public QObject {
    Q_OBJECT

public:
    enum class Trigger { screenLocked, sleep, idle, sessionEnded };

    struct Hooks {
        std::function<bool()> hasUnlockedItems;
        std::function<void(Trigger)> onTrigger;
    };

    AutoLock(Hooks hooks, UserSettings settings,
             std::chrono::milliseconds idleCheckInterval = std::chrono::seconds(30),
             QObject* parent = nullptr);
    ~AutoLock() override;

    // Connects to the buses DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS name now, so
    // that each start finds the buses of its own environment. Once.
    void start();

    bool screenIsLocked() const { return screenIsLocked_; }
    // Whether the desktop answered the last question about idleness.
    bool idleAvailable() const { return idleAvailable_; }
    // The stored limit; the default when it is missing or not a number.
    int idleMinutes() const { return settings_.idleMinutes(); }
    // Whether the last idle time read is past the limit while items are unlocked.
    bool idleRuleHolds() const;
    // Asks the desktop for the idle time now; `then` runs once the answer (or its absence) is in.
    void refreshIdle(std::function<void()> then);

    // The sleep lock is held while items are unlocked.
    void setItemsOpen(bool open);
    // The model finished a quiet lock: a sleep or shutdown that waits for it may go on.
    void lockFinished();

private slots:
    void prepareForSleep(bool starting);
    void prepareForShutdown(bool starting);
    void sessionLocked();
    void sessionUnlocked();
    void sessionPropertiesChanged(const QString& interface, const QVariantMap& changed,
                                  const QStringList& invalidated);
    void screenSaverActiveChanged(bool active);

private:
    void findSession();
    void watchSession(const QString& path);
    void screenLocked();
    void screenUnlocked();
    void checkIdle();
    // Sends `call` on the system bus; `then` gets the reply, an error or a timeout.
    void askSystem(const QDBusMessage& call, std::function<void(const QDBusMessage&)> then);

    Hooks hooks_;
    UserSettings settings_;
    QString systemName_;
    QString sessionName_;
    QString sessionPath_;  // the logind session watched; empty until found
    QDBusConnection system_;
    QDBusConnection session_;
    std::unique_ptr<SleepInhibitor> inhibitor_;
    std::unique_ptr<IdleMonitor> idle_;
    QTimer idleTimer_;
    bool started_ = false;
    bool itemsOpen_ = false;
    bool screenIsLocked_ = false;
    bool idleAvailable_ = false;
    bool checkingIdle_ = false;
    std::vector<std::function<void()>> idleWaiters_;  // who waits for the question being asked
    std::optional<double> idleSeconds_;
};

}  // namespace corvane::app
