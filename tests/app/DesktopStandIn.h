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
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace corvane::testing {

class DesktopStandIn : public QDBusVirtualObject {
public:
    static inline const QString sessionPath = QStringLiteral("/org/freedesktop/login1/session/_31");

    struct Present {
        bool logind = true;
        bool mutter = true;
        bool screenSaver = true;  // org.freedesktop.ScreenSaver
        bool gnomeScreenSaver = true;
    };

    std::atomic<std::uint64_t> mutterIdleMilliseconds{0};
    std::atomic<std::uint32_t> screenSaverIdleSeconds{0};
    // Set before the services are asked: replaces every answer it returns one for.
    std::function<std::optional<QVariantList>(const QDBusMessage&)> misbehave;

    DesktopStandIn(const std::string& systemAddress, const std::string& sessionAddress,
                   Present present)
        : system_(connect(systemAddress)), session_(connect(sessionAddress)) {
        if (pipe2(stop_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        for (auto* bus : {&system_, &session_})
            bus->registerVirtualObject(QStringLiteral("/"), this, QDBusConnection::SubPath);
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

    // PrepareForSleep, PrepareForShutdown.
    void emitManager(const QString& name, const QVariant& argument) {
        send(system_, QStringLiteral("/org/freedesktop/login1"),
             QStringLiteral("org.freedesktop.login1.Manager"), name, {argument});
    }
    // Lock, Unlock.
    void emitSession(const QString& name) {
        send(system_, sessionPath, QStringLiteral("org.freedesktop.login1.Session"), name, {});
    }
    void changeSession(const QString& property, const QVariant& value) {
        send(system_, sessionPath, QStringLiteral("org.freedesktop.DBus.Properties"),
             QStringLiteral("PropertiesChanged"),
             {QStringLiteral("org.freedesktop.login1.Session"), QVariantMap{{property, value}},
              QStringList()});
    }
    // ActiveChanged of "org.freedesktop.ScreenSaver" or "org.gnome.ScreenSaver".
    void emitScreenSaver(const QString& service, const QVariant& active) {
        QString path = QLatin1Char('/') + QString(service).replace(u'.', u'/');
        send(session_, path, service, QStringLiteral("ActiveChanged"), {active});
    }

    std::size_t calls(const QString& member) const {
        std::lock_guard guard(lock_);
        return static_cast<std::size_t>(std::count(calls_.begin(), calls_.end(), member));
    }
    QVariantList lastInhibit() const {
        std::lock_guard guard(lock_);
        return lastInhibit_;
    }
    int inhibitorsHeld() const { return held_; }
    // For each inhibitor let go so far, in order: whether the watched mount was still there.
    std::vector<bool> mountedAtRelease() const {
        std::lock_guard guard(lock_);
        return mountedAtRelease_;
    }
    void watchMount(const std::string& mountPoint) {
        std::lock_guard guard(lock_);
        watchedMount_ = " " + mountPoint + " ";
    }

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& call, const QDBusConnection& bus) override {
        QString member = call.member();
        {
            std::lock_guard guard(lock_);
            calls_.push_back(member);
            if (member == "Inhibit") lastInhibit_ = call.arguments();
        }
        std::optional<QVariantList> answer = misbehave ? misbehave(call) : std::nullopt;
        if (!answer) answer = properAnswer(call);
        bus.send(answer ? call.createReply(*answer)
                        : call.createErrorReply(QDBusError::UnknownMethod, member));
        return true;
    }

private:
    std::optional<QVariantList> properAnswer(const QDBusMessage& call) {
        QString member = call.member();
        if (member == "GetSessionByPID" || member == "GetSession")
            return QVariantList{QVariant::fromValue(QDBusObjectPath(sessionPath))};
        if (member == "Get" && call.path() == sessionPath)
            return QVariantList{QVariant::fromValue(QDBusVariant(false))};  // LockedHint
        if (member == "Inhibit") return QVariantList{QVariant::fromValue(inhibitor())};
        if (member == "GetIdletime")
            return QVariantList{QVariant::fromValue(qulonglong(mutterIdleMilliseconds.load()))};
        if (member == "GetSessionIdleTime")
            return QVariantList{QVariant::fromValue(uint(screenSaverIdleSeconds.load()))};
        return std::nullopt;
    }

    static QDBusConnection connect(const std::string& address) {
        static std::atomic<int> counter{0};
        return QDBusConnection::connectToBus(QString::fromStdString(address),
                                             QStringLiteral("desktop-standin-%1").arg(counter++));
    }

    static void send(QDBusConnection& bus, const QString& path, const QString& interface,
                     const QString& name, const QVariantList& arguments) {
        QDBusMessage signal = QDBusMessage::createSignal(path, interface, name);
        signal.setArguments(arguments);
        bus.send(signal);
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
                mountedAtRelease_.push_back(!watchedMount_.empty() &&
                                            readFile("/proc/self/mountinfo").find(watchedMount_) !=
                                                std::string::npos);
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
    QVariantList lastInhibit_;
    std::vector<bool> mountedAtRelease_;
    std::string watchedMount_;
    std::vector<std::thread> watchers_;
};

}  // namespace corvane::testing
