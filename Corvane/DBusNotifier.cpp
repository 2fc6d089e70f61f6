#include "DBusNotifier.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

namespace corvane::app {

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
// A server that takes longer than this has hung; the notice is given up, never waited for.
constexpr int kCallTimeoutMs = 5000;

QDBusMessage call(const QString& method) {
    return QDBusMessage::createMethodCall(kService, kPath, kService, method);
}

// Servers that take markup read '&' and '<' in a file name as the start of an entity or a tag.
QString markupEscaped(const QString& text) {
    QString escaped;
    escaped.reserve(text.size());
    for (QChar c : text) {
        if (c == u'&')
            escaped += QStringLiteral("&amp;");
        else if (c == u'<')
            escaped += QStringLiteral("&lt;");
        else if (c == u'>')
            escaped += QStringLiteral("&gt;");
        else
            escaped += c;
    }
    return escaped;
}

}  // namespace

DBusNotifier::DBusNotifier(QDBusConnection bus, QObject* parent)
    : QObject(parent), bus_(std::move(bus)) {}

void DBusNotifier::post(const std::string& title, const std::string& body) {
    send({{QString::fromStdString(title), QString::fromStdString(body)}, 0, std::nullopt});
}

void DBusNotifier::postIfAllowed(const std::string& identifier, const std::string& title,
                                 const std::string& body) {
    Notice notice{QString::fromStdString(title), QString::fromStdString(body)};
    Slot& slot = slots_[identifier];
    // Until the server has said which id the previous notice got, a new one would stand beside
    // it instead of replacing it: keep the newest and send it with the reply.
    if (slot.awaitingReply) {
        slot.deferred = std::move(notice);
        return;
    }
    slot.awaitingReply = true;
    send({std::move(notice), slot.shownId, identifier});
}

void DBusNotifier::askCapabilities() {
    askingCapabilities_ = true;
    auto* watcher =
        new QDBusPendingCallWatcher(bus_.asyncCall(call("GetCapabilities"), kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        QDBusPendingReply<QStringList> reply = *w;
        askingCapabilities_ = false;
        // Without an answer, the notices go out escaped (most servers take markup) and the
        // next notice asks again.
        bodyMarkup_ = reply.isValid()
                          ? std::optional(reply.value().contains(QStringLiteral("body-markup")))
                          : std::nullopt;
        bool markup = bodyMarkup_.value_or(true);
        for (auto& outgoing : std::exchange(waiting_, {})) {
            if (markup) outgoing.notice.body = markupEscaped(outgoing.notice.body);
            sendNow(std::move(outgoing));
        }
    });
}

void DBusNotifier::send(Outgoing outgoing) {
    if (bodyMarkup_) {
        if (*bodyMarkup_) outgoing.notice.body = markupEscaped(outgoing.notice.body);
        sendNow(std::move(outgoing));
        return;
    }
    waiting_.push_back(std::move(outgoing));
    if (!askingCapabilities_) askCapabilities();
}

void DBusNotifier::sendNow(Outgoing outgoing) {
    QDBusMessage message = call("Notify");
    message << QStringLiteral("Corvane") << outgoing.replacesId << QStringLiteral("corvane")
            << outgoing.notice.title << outgoing.notice.body << QStringList() << QVariantMap()
            << qint32(-1);
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, identifier = std::move(outgoing.identifier)](QDBusPendingCallWatcher* w) {
                w->deleteLater();
                QDBusPendingReply<uint> reply = *w;
                if (identifier)
                    finished(*identifier,
                             reply.isValid() ? std::optional(reply.value()) : std::nullopt);
            });
}

void DBusNotifier::finished(const std::string& identifier, std::optional<uint> shownId) {
    Slot& slot = slots_[identifier];
    slot.awaitingReply = false;
    if (shownId) slot.shownId = *shownId;
    if (auto next = std::exchange(slot.deferred, std::nullopt)) {
        slot.awaitingReply = true;
        send({std::move(*next), slot.shownId, identifier});
    }
}

}  // namespace corvane::app
