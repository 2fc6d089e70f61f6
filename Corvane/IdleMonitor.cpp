#include "IdleMonitor.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <iterator>

#include "X11Idle.h"

namespace corvane::app {

namespace {

struct Source {
    const char* service;
    const char* path;
    const char* interface;
    const char* method;
    double secondsPerUnit;
};

// Both count in milliseconds: Mutter's monitor, and KDE's answer on the freedesktop interface.
constexpr Source kSources[] = {
    {"org.gnome.Mutter.IdleMonitor", "/org/gnome/Mutter/IdleMonitor/Core",
     "org.gnome.Mutter.IdleMonitor", "GetIdletime", 0.001},
    {"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver",
     "GetSessionIdleTime", 0.001},
};

constexpr int kCallTimeoutMs = 500;

// The reply's one unsigned count; nothing for an error or anything else a service sent.
std::optional<double> countIn(const QDBusMessage& reply) {
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 1)
        return std::nullopt;
    QVariant value = reply.arguments().front();  // arguments() is a copy
    switch (value.typeId()) {
        case QMetaType::UInt:
        case QMetaType::ULongLong: return static_cast<double>(value.toULongLong());
        default: return std::nullopt;
    }
}

}  // namespace

IdleMonitor::IdleMonitor(QDBusConnection session, QObject* parent)
    : QObject(parent), session_(std::move(session)) {}

void IdleMonitor::ask(Answer answer) {
    askSource(0, std::move(answer));
}

void IdleMonitor::askSource(std::size_t index, Answer answer) {
    if (index >= std::size(kSources) || !session_.isConnected()) {
        // The X server last: on X11 desktops whose session answers no idle question.
        answer(X11Idle::seconds());
        return;
    }
    const Source& source = kSources[index];
    QDBusMessage call = QDBusMessage::createMethodCall(
        QString::fromLatin1(source.service), QString::fromLatin1(source.path),
        QString::fromLatin1(source.interface), QString::fromLatin1(source.method));
    auto* watcher = new QDBusPendingCallWatcher(session_.asyncCall(call, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, watcher, index, answer = std::move(answer)]() mutable {
                watcher->deleteLater();
                if (auto count = countIn(watcher->reply()))
                    answer(*count * kSources[index].secondsPerUnit);
                else
                    askSource(index + 1, std::move(answer));
            });
}

}  // namespace corvane::app
