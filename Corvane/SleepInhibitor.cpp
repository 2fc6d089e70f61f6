#include "SleepInhibitor.h"

#include <unistd.h>

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusUnixFileDescriptor>

namespace corvane::app {

namespace {

constexpr int kCallTimeoutMs = 500;

// The descriptor in logind's reply, now owned by the caller; -1 for anything else.
int descriptorIn(const QDBusMessage& reply) {
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 1) return -1;
    QVariant value = reply.arguments().front();  // arguments() is a copy
    if (value.metaType() != QMetaType::fromType<QDBusUnixFileDescriptor>()) return -1;
    // Every copy of the descriptor shares it: taking it here leaves none open in the reply.
    return qvariant_cast<QDBusUnixFileDescriptor>(value).takeFileDescriptor();
}

}  // namespace

SleepInhibitor::SleepInhibitor(QDBusConnection system, QObject* parent)
    : QObject(parent), system_(std::move(system)) {}

SleepInhibitor::~SleepInhibitor() {
    close();
}

void SleepInhibitor::setWanted(bool wanted) {
    wanted_ = wanted;
    update();
}

void SleepInhibitor::suspending() {
    suspending_ = true;
}

void SleepInhibitor::release() {
    if (suspending_) close();
}

void SleepInhibitor::resumed() {
    suspending_ = false;
    update();
}

void SleepInhibitor::update() {
    // During a sleep only release() lets the lock go; a new one would not delay it anyway.
    if (suspending_) return;
    if (!wanted_) {
        close();
        return;
    }
    if (held() || asking_ || !system_.isConnected()) return;
    asking_ = true;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep:shutdown") << QStringLiteral("Corvane")
         << QStringLiteral("Locking unlocked items") << QStringLiteral("delay");
    auto* watcher = new QDBusPendingCallWatcher(system_.asyncCall(call, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
        watcher->deleteLater();
        asking_ = false;
        int descriptor = descriptorIn(watcher->reply());
        if (descriptor < 0) return;
        // Things changed while logind answered.
        if (held() || !wanted_ || suspending_) {
            ::close(descriptor);
            return;
        }
        descriptor_ = descriptor;
    });
}

void SleepInhibitor::close() {
    if (descriptor_ < 0) return;
    ::close(descriptor_);
    descriptor_ = -1;
}

}  // namespace corvane::app
