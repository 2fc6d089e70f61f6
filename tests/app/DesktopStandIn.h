// The desktop services auto-lock listens to, standing in on private buses: logind (its manager
// and one session) on a system bus, Mutter's idle monitor and two screen savers on a session bus.
// The test sends their signals and sets the idle time they report; each sleep inhibitor handed
// out is a pipe whose closing a thread notices at once, noting whether a watched mount was still
// there. Created and driven on the main thread; calls arrive on Qt's D-Bus thread.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace corvane::testing {

class DesktopStandIn : public QDBusVirtualObject {
public:
    static inline const QString managerPath = QStringLiteral("/org/freedesktop/login1");
    static inline const QString sessionPath = QStringLiteral("/org/freedesktop/login1/session/_31");
    static inline const QString manager = QStringLiteral("org.freedesktop.login1.Manager");
    static inline const QString session = QStringLiteral("org.freedesktop.login1.Session");

    struct Present {
        bool logind = true;
        bool mutter = true;
        bool screenSaver = true;  // org.freedesktop.ScreenSaver
        bool gnomeScreenSaver = true;
    };

    // What the idle questions answer.
    std::atomic<std::uint64_t> mutterIdleMilliseconds{0};
    std::atomic<std::uint32_t> screenSaverIdleSeconds{0};
    // When set before the services are asked, replaces the answer to every call it returns
    // something for: a service that sends nonsense.
    std::function<std::optional<QVariantList>(const QDBusMessage&)> misbehave;

    DesktopStandIn(const std::string& systemAddress, const std::string& sessionAddress,
                   Present present)
        : system_(connect(systemAddress, "system")), session_(connect(sessionAddress, "session")) {
        if (pipe2(stop_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        system_.registerVirtualObject(QStringLiteral("/"), this, QDBusConnection::SubPath);
        session_.registerVirtualObject(QStringLiteral("/"), this, QDBusConnection::SubPath);
        if (present.logind) system_.registerService(QStringLiteral("org.freedesktop.login1"));
        if (present.mutter)
            session_.registerService(QStringLiteral("org.gnome.Mutter.IdleMonitor"));
        if (present.screenSaver)
            session_.registerService(QStringLiteral("org.freedesktop.ScreenSaver"));
        if (present.gnomeScreenSaver)
            session_.registerService(QStringLiteral("org.gnome.ScreenSaver"));
    }

    ~DesktopStandIn() override {
        for (auto* bus : {&system_, &session_}) {
            QString name = bus->name();
            *bus = QDBusConnection(QString());
            QDBusConnection::disconnectFromBus(name);
        }
        (void)!write(stop_[1], "x", 1);
        for (auto& watcher : watchers_) watcher.join();
        ::close(stop_[0]);
        ::close(stop_[1]);
    }

    void emitManager(const QString& name, const QVariantList& arguments) {
        send(system_, managerPath, manager, name, arguments);
    }
    void emitSession(const QString& name) { send(system_, sessionPath, session, name, {}); }
    void changeSession(const QString& property, const QVariant& value) {
        {
            std::lock_guard guard(lock_);
            properties_[property] = value;
        }
        send(system_, sessionPath, QStringLiteral("org.freedesktop.DBus.Properties"),
             QStringLiteral("PropertiesChanged"),
             {session, QVariantMap{{property, value}}, QStringList()});
    }
    // "org.freedesktop.ScreenSaver" or "org.gnome.ScreenSaver"; `active` is usually a bool.
    void emitScreenSaver(const QString& service, const QVariant& active) {
        QString path =
            QLatin1Char('/') + QString(service).replace(QLatin1Char('.'), QLatin1Char('/'));
        send(session_, path, service, QStringLiteral("ActiveChanged"), {active});
    }

    std::size_t calls(const QString& member) const {
        std::lock_guard guard(lock_);
        return static_cast<std::size_t>(std::count(calls_.begin(), calls_.end(), member));
    }
    std::vector<QVariantList> inhibitCalls() const {
        std::lock_guard guard(lock_);
        return inhibitCalls_;
    }
    int inhibitorsHeld() const { return held_; }
    // For each inhibitor let go so far, in order: whether the watched mount was still mounted.
    std::vector<bool> mountedAtRelease() const {
        std::lock_guard guard(lock_);
        return mountedAtRelease_;
    }
    void watchMount(const std::string& mountPoint) {
        std::lock_guard guard(lock_);
        watchedMount_ = mountPoint;
    }

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        QString member = message.member();
        {
            std::lock_guard guard(lock_);
            calls_.push_back(member);
            if (member == QStringLiteral("Inhibit")) inhibitCalls_.push_back(message.arguments());
        }
        if (misbehave)
            if (auto answer = misbehave(message)) {
                connection.send(message.createReply(*answer));
                return true;
            }
        if (member == QStringLiteral("GetSessionByPID") || member == QStringLiteral("GetSession")) {
            connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(sessionPath))));
        } else if (member == QStringLiteral("Get") && message.path() == sessionPath) {
            std::lock_guard guard(lock_);
            QVariant value = properties_[message.arguments().value(1).toString()];
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(value))));
        } else if (member == QStringLiteral("Inhibit")) {
            connection.send(message.createReply(QVariant::fromValue(inhibitor())));
        } else if (member == QStringLiteral("GetIdletime")) {
            connection.send(message.createReply(
                QVariant::fromValue(static_cast<qulonglong>(mutterIdleMilliseconds.load()))));
        } else if (member == QStringLiteral("GetSessionIdleTime")) {
            connection.send(message.createReply(
                QVariant::fromValue(static_cast<uint>(screenSaverIdleSeconds.load()))));
        } else {
            connection.send(message.createErrorReply(QDBusError::UnknownMethod, member));
        }
        return true;
    }

private:
    static QDBusConnection connect(const std::string& address, const char* bus) {
        static std::atomic<int> counter{0};
        return QDBusConnection::connectToBus(
            QString::fromStdString(address),
            QStringLiteral("desktop-standin-%1-%2").arg(bus).arg(counter++));
    }

    static void send(QDBusConnection& bus, const QString& path, const QString& interface,
                     const QString& name, const QVariantList& arguments) {
        QDBusMessage signal = QDBusMessage::createSignal(path, interface, name);
        signal.setArguments(arguments);
        bus.send(signal);
    }

    static bool mounted(const std::string& mountPoint) {
        return readFile("/proc/self/mountinfo").find(" " + mountPoint + " ") != std::string::npos;
    }

    // The caller's end of a new pipe; a thread waits for every copy of it to close.
    QDBusUnixFileDescriptor inhibitor() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return {};
        QDBusUnixFileDescriptor handed(ends[1]);  // a copy, sent with the reply
        ::close(ends[1]);
        ++held_;
        std::lock_guard guard(lock_);
        watchers_.emplace_back([this, end = ends[0]] {
            pollfd waits[] = {{end, POLLIN, 0}, {stop_[0], POLLIN, 0}};
            while (poll(waits, 2, -1) < 0 && errno == EINTR) {
            }
            if (waits[0].revents & (POLLHUP | POLLIN)) {
                std::lock_guard guard(lock_);
                mountedAtRelease_.push_back(!watchedMount_.empty() && mounted(watchedMount_));
                --held_;
            }
            ::close(end);
        });
        return handed;
    }

    QDBusConnection system_;
    QDBusConnection session_;
    int stop_[2] = {-1, -1};
    std::atomic<int> held_{0};
    mutable std::mutex lock_;
    std::vector<QString> calls_;
    std::vector<QVariantList> inhibitCalls_;
    std::map<QString, QVariant> properties_{{QStringLiteral("LockedHint"), false},
                                            {QStringLiteral("Active"), true}};
    std::vector<bool> mountedAtRelease_;
    std::string watchedMount_;
    std::vector<std::thread> watchers_;
};

}  // namespace corvane::testing
