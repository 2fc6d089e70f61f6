#include "AutoLock.h"

#include <unistd.h>

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <atomic>
#include <cstdlib>
#include <utility>

#include "Records/IdlePolicy.h"

namespace corvane::app {

namespace {

const QString kLogin = QStringLiteral("org.freedesktop.login1");
const QString kManagerPath = QStringLiteral("/org/freedesktop/login1");
const QString kManager = QStringLiteral("org.freedesktop.login1.Manager");
const QString kSession = QStringLiteral("org.freedesktop.login1.Session");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");
constexpr int kCallTimeoutMs = 500;

// KDE and others implement the freedesktop name; GNOME Shell its own.
const QString kScreenSavers[][2] = {
    {QStringLiteral("org.freedesktop.ScreenSaver"), QStringLiteral("/org/freedesktop/ScreenSaver")},
    {QStringLiteral("org.gnome.ScreenSaver"), QStringLiteral("/org/gnome/ScreenSaver")},
};

std::atomic<int> instances{0};

// QDBusConnection::systemBus() and sessionBus() keep the address they first read; a named
// connection to the address in the environment now does not.
QDBusConnection connectTo(const char* variable, const QString& fallback, const QString& name) {
    QString address = fallback;
    if (const char* value = std::getenv(variable); value && *value)
        address = QString::fromLocal8Bit(value);
    if (address.isEmpty()) return QDBusConnection(QString());
    return QDBusConnection::connectToBus(address, name);
}

QString sessionBusFallback() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime && *runtime
               ? QStringLiteral("unix:path=%1/bus").arg(QString::fromLocal8Bit(runtime))
               : QString();
}

// A session object's path from logind's reply; nothing for anything else.
std::optional<QString> sessionPathIn(const QDBusMessage& reply) {
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 1)
        return std::nullopt;
    QVariant value = reply.arguments().front();  // arguments() is a copy
    if (value.metaType() != QMetaType::fromType<QDBusObjectPath>()) return std::nullopt;
    QString path = qvariant_cast<QDBusObjectPath>(value).path();
    if (!path.startsWith(kManagerPath + QStringLiteral("/session/"))) return std::nullopt;
    return path;
}

std::optional<bool> booleanIn(const QVariant& value) {
    if (value.typeId() != QMetaType::Bool) return std::nullopt;
    return value.toBool();
}

// The LockedHint in the reply to a properties Get; nothing for an error or anything else.
std::optional<bool> lockedHintIn(const QDBusMessage& reply) {
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 1)
        return std::nullopt;
    QVariant value = reply.arguments().front();  // arguments() is a copy
    if (value.metaType() != QMetaType::fromType<QDBusVariant>()) return std::nullopt;
    return booleanIn(qvariant_cast<QDBusVariant>(value).variant());
}

}  // namespace

AutoLock::AutoLock(Hooks hooks, UserSettings settings, std::chrono::milliseconds idleCheckInterval,
                   QObject* parent)
    : QObject(parent),
      hooks_(std::move(hooks)),
      settings_(std::move(settings)),
      systemName_(QStringLiteral("corvane-autolock-system-%1").arg(instances.fetch_add(1))),
      sessionName_(QStringLiteral("corvane-autolock-session-%1").arg(instances.fetch_add(1))),
      system_(QString()),
      session_(QString()) {
    idleTimer_.setInterval(idleCheckInterval);
    connect(&idleTimer_, &QTimer::timeout, this, &AutoLock::checkIdle);
}

AutoLock::~AutoLock() {
    idle_.reset();
    inhibitor_.reset();
    system_ = QDBusConnection(QString());
    session_ = QDBusConnection(QString());
    if (started_) {
        QDBusConnection::disconnectFromBus(systemName_);
        QDBusConnection::disconnectFromBus(sessionName_);
    }
}

void AutoLock::start() {
    if (started_) return;
    started_ = true;
    system_ = connectTo("DBUS_SYSTEM_BUS_ADDRESS",
                        QStringLiteral("unix:path=/run/dbus/system_bus_socket"), systemName_);
    session_ = connectTo("DBUS_SESSION_BUS_ADDRESS", sessionBusFallback(), sessionName_);
    inhibitor_ = std::make_unique<SleepInhibitor>(system_);
    inhibitor_->setWanted(itemsOpen_);
    idle_ = std::make_unique<IdleMonitor>(session_);

    // Signals are taken only from the owner of each name; ones with other arguments than these
    // slots take are not delivered.
    if (system_.isConnected()) {
        system_.connect(kLogin, kManagerPath, kManager, QStringLiteral("PrepareForSleep"), this,
                        SLOT(prepareForSleep(bool)));
        system_.connect(kLogin, kManagerPath, kManager, QStringLiteral("PrepareForShutdown"), this,
                        SLOT(prepareForShutdown(bool)));
        findSession();
    }
    if (session_.isConnected())
        for (const auto& [service, path] : kScreenSavers)
            session_.connect(service, path, service, QStringLiteral("ActiveChanged"), this,
                             SLOT(screenSaverActiveChanged(bool)));

    checkIdle();
    idleTimer_.start();
}

bool AutoLock::idleRuleHolds() const {
    return idleSeconds_ &&
           IdlePolicy::shouldLock(*idleSeconds_, idleMinutes(), hooks_.hasUnlockedItems());
}

void AutoLock::setItemsOpen(bool open) {
    itemsOpen_ = open;
    if (inhibitor_) inhibitor_->setWanted(open);
}

void AutoLock::lockFinished() {
    if (inhibitor_) inhibitor_->release();
}

void AutoLock::askSystem(const QDBusMessage& call, std::function<void(const QDBusMessage&)> then) {
    auto* watcher = new QDBusPendingCallWatcher(system_.asyncCall(call, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [watcher, then = std::move(then)] {
        watcher->deleteLater();
        then(watcher->reply());
    });
}

void AutoLock::findSession() {
    // An application started by the desktop may run outside the session's processes; "auto" is
    // then the user's graphical session.
    QDBusMessage byProcess =
        QDBusMessage::createMethodCall(kLogin, kManagerPath, kManager, "GetSessionByPID");
    byProcess << static_cast<quint32>(getpid());
    askSystem(byProcess, [this](const QDBusMessage& reply) {
        if (auto path = sessionPathIn(reply)) {
            watchSession(*path);
            return;
        }
        QDBusMessage automatic =
            QDBusMessage::createMethodCall(kLogin, kManagerPath, kManager, "GetSession");
        automatic << QStringLiteral("auto");
        askSystem(automatic, [this](const QDBusMessage& reply) {
            if (auto path = sessionPathIn(reply)) watchSession(*path);
        });
    });
}

void AutoLock::watchSession(const QString& path) {
    sessionPath_ = path;
    system_.connect(kLogin, path, kSession, QStringLiteral("Lock"), this, SLOT(sessionLocked()));
    system_.connect(kLogin, path, kSession, QStringLiteral("Unlock"), this,
                    SLOT(sessionUnlocked()));
    system_.connect(kLogin, path, kProperties, QStringLiteral("PropertiesChanged"), this,
                    SLOT(sessionPropertiesChanged(QString, QVariantMap, QStringList)));
    QDBusMessage get = QDBusMessage::createMethodCall(kLogin, path, kProperties, "Get");
    get << kSession << QStringLiteral("LockedHint");
    askSystem(get, [this](const QDBusMessage& reply) {
        if (lockedHintIn(reply).value_or(false) && !screenIsLocked_) screenLocked();
    });
}

void AutoLock::prepareForSleep(bool starting) {
    if (!starting) {
        inhibitor_->resumed();
        return;
    }
    inhibitor_->suspending();
    hooks_.onTrigger(Trigger::sleep);
}

void AutoLock::prepareForShutdown(bool starting) {
    if (!starting) {
        inhibitor_->resumed();
        return;
    }
    inhibitor_->suspending();
    hooks_.onTrigger(Trigger::sessionEnded);
}

void AutoLock::sessionLocked() {
    screenLocked();
}

void AutoLock::sessionUnlocked() {
    screenUnlocked();
}

void AutoLock::screenSaverActiveChanged(bool active) {
    if (!active) {
        screenUnlocked();
        return;
    }
    // A screen saver also starts to only blank the screen, where locking is switched off; the
    // session's LockedHint says whether it locked. Without a session to ask, active is locked.
    if (sessionPath_.isEmpty()) {
        screenLocked();
        return;
    }
    QDBusMessage get = QDBusMessage::createMethodCall(kLogin, sessionPath_, kProperties, "Get");
    get << kSession << QStringLiteral("LockedHint");
    askSystem(get, [this](const QDBusMessage& reply) {
        if (lockedHintIn(reply).value_or(true) && !screenIsLocked_) screenLocked();
    });
}

void AutoLock::sessionPropertiesChanged(const QString& interface, const QVariantMap& changed,
                                        const QStringList&) {
    if (interface != kSession) return;
    // The hint only reports the state: a lock that was already seen is not a second one.
    if (auto hint = booleanIn(changed.value(QStringLiteral("LockedHint")))) {
        if (*hint && !screenIsLocked_)
            screenLocked();
        else if (!*hint && screenIsLocked_)
            screenUnlocked();
    }
    if (auto active = booleanIn(changed.value(QStringLiteral("Active"))); active && !*active)
        hooks_.onTrigger(Trigger::sessionEnded);
}

void AutoLock::screenLocked() {
    screenIsLocked_ = true;
    hooks_.onTrigger(Trigger::screenLocked);
}

void AutoLock::screenUnlocked() {
    screenIsLocked_ = false;
    // The user is back: the idle time read before the unlock is stale.
    checkIdle();
}

void AutoLock::checkIdle() {
    refreshIdle(nullptr);
}

void AutoLock::refreshIdle(std::function<void()> then) {
    if (then) idleWaiters_.push_back(std::move(then));
    if (!idle_) {
        for (auto& waiting : std::exchange(idleWaiters_, {})) waiting();
        return;
    }
    if (checkingIdle_) return;
    checkingIdle_ = true;
    idle_->ask([this](std::optional<double> seconds) {
        checkingIdle_ = false;
        idleSeconds_ = seconds;
        idleAvailable_ = seconds.has_value();
        // At every check while the user stays away: an item opened meanwhile is locked too.
        if (idleRuleHolds()) hooks_.onTrigger(Trigger::idle);
        for (auto& waiting : std::exchange(idleWaiters_, {})) waiting();
    });
}

}  // namespace corvane::app
