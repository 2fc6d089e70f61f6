// logind (manager and one session), Mutter's idle monitor and two screen savers on private buses,
// sending what the test asks and reporting the idle time it sets. Each sleep inhibitor is a pipe
// whose closing a thread notices at once, noting whether a watched mount was still there. Driven
// on the main thread; calls arrive on Qt's D-Bus thread.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "BusServiceStandIn.h"
#include "TestSupport.h"

namespace corvane::testing {

class DesktopStandIn {
public:
    static inline const QString sessionPath = QStringLiteral("/org/freedesktop/login1/session/_31");

    // Which idle-time services are there; logind and GNOME's screen saver always are.
    struct Present {
        bool mutter = true;
        bool screenSaver = true;  // org.freedesktop.ScreenSaver
    };

    std::atomic<std::uint64_t> mutterIdleMilliseconds{0};
    std::atomic<std::uint32_t> screenSaverIdleSeconds{0};
    std::atomic<bool> lockedHint{false};  // the session's, as Get answers it
    // Set before the services are asked: replaces every answer it returns one for.
    BusServiceStandIn::Answer misbehave;

    DesktopStandIn(const std::string& systemAddress, const std::string& sessionAddress,
                   Present present) {
        auto answer = [this](const QDBusMessage& call) {
            std::optional<QVariantList> answer = misbehave ? misbehave(call) : std::nullopt;
            return answer ? answer : properAnswer(call);
        };
        if (pipe2(stop_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        QStringList sessionServices{QStringLiteral("org.gnome.ScreenSaver")};
        if (present.mutter) sessionServices << QStringLiteral("org.gnome.Mutter.IdleMonitor");
        if (present.screenSaver) sessionServices << QStringLiteral("org.freedesktop.ScreenSaver");
        system_ = std::make_unique<BusServiceStandIn>(
            systemAddress, QStringList{QStringLiteral("org.freedesktop.login1")},
            QStringLiteral("/"), answer);
        session_ = std::make_unique<BusServiceStandIn>(sessionAddress, sessionServices,
                                                       QStringLiteral("/"), answer);
    }

    ~DesktopStandIn() {
        // No call hands out an inhibitor once the watchers are told to stop.
        system_.reset();
        session_.reset();
        (void)!write(stop_[1], "x", 1);
        for (auto& watcher : watchers_) watcher.join();
        ::close(stop_[0]);
        ::close(stop_[1]);
    }

    // PrepareForSleep, PrepareForShutdown.
    void emitManager(const QString& name, const QVariant& argument) {
        system_->emitSignal(QStringLiteral("/org/freedesktop/login1"),
                            QStringLiteral("org.freedesktop.login1.Manager"), name, {argument});
    }
    // Lock, Unlock.
    void emitSession(const QString& name) {
        system_->emitSignal(sessionPath, QStringLiteral("org.freedesktop.login1.Session"), name,
                            {});
    }
    void changeSession(const QString& property, const QVariant& value) {
        system_->emitSignal(sessionPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                            QStringLiteral("PropertiesChanged"),
                            {QStringLiteral("org.freedesktop.login1.Session"),
                             QVariantMap{{property, value}}, QStringList()});
    }
    // ActiveChanged of "org.freedesktop.ScreenSaver" or "org.gnome.ScreenSaver". A desktop that
    // locks as its screen saver starts sets the session's LockedHint first; one that only blanks
    // the screen leaves it.
    void emitScreenSaver(const QString& service, const QVariant& active, bool locks = true) {
        if (active.metaType() == QMetaType::fromType<bool>() && locks) lockedHint = active.toBool();
        QString path = QLatin1Char('/') + QString(service).replace(u'.', u'/');
        session_->emitSignal(path, service, QStringLiteral("ActiveChanged"), {active});
    }

    std::size_t calls(const QString& member) const {
        return system_->calls(member).size() + session_->calls(member).size();
    }
    QVariantList lastInhibit() const {
        auto inhibits = system_->calls(QStringLiteral("Inhibit"));
        return inhibits.empty() ? QVariantList() : inhibits.back().arguments();
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

private:
    std::optional<QVariantList> properAnswer(const QDBusMessage& call) {
        QString member = call.member();
        if (member == "GetSessionByPID" || member == "GetSession")
            return QVariantList{QVariant::fromValue(QDBusObjectPath(sessionPath))};
        if (member == "Get" && call.path() == sessionPath)
            return QVariantList{QVariant::fromValue(QDBusVariant(lockedHint.load()))};
        if (member == "Inhibit") return QVariantList{QVariant::fromValue(inhibitor())};
        if (member == "GetIdletime")
            return QVariantList{QVariant::fromValue(qulonglong(mutterIdleMilliseconds.load()))};
        if (member == "GetSessionIdleTime")
            // KDE answers in milliseconds, as Mutter does.
            return QVariantList{QVariant::fromValue(uint(screenSaverIdleSeconds.load() * 1000))};
        return std::nullopt;
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

    int stop_[2];
    std::atomic<int> held_{0};
    mutable std::mutex lock_;
    std::vector<bool> mountedAtRelease_;
    std::string watchedMount_;
    std::vector<std::thread> watchers_;
    std::unique_ptr<BusServiceStandIn> system_, session_;
};

}  // namespace corvane::testing
