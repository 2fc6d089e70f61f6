// Notifier on the desktop's notification service (org.freedesktop.Notifications on the session
// bus). Calls are asynchronous: with no service nothing is shown, nothing fails and nothing
// waits. Main thread only.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Notifier.h"

namespace corvane::app {

class DBusNotifier : public QObject, public Notifier {
    Q_OBJECT

public:
    explicit DBusNotifier(QDBusConnection bus = QDBusConnection::sessionBus(),
                          QObject* parent = nullptr);

    void post(const std::string& title, const std::string& body) override;
    void postIfAllowed(const std::string& identifier, const std::string& title,
                       const std::string& body) override;

private:
    struct Notice {
        QString title;
        QString body;
    };
    // What is known of the notice last posted under one identifier.
    struct Slot {
        uint shownId = 0;                // the server's id for it, 0 before any reply
        bool awaitingReply = false;      // a Notify is out; its reply brings the id
        std::optional<Notice> deferred;  // the newest notice posted meanwhile
    };

    struct Outgoing {
        Notice notice;
        uint replacesId = 0;
        std::optional<std::string> identifier;
    };

    void askCapabilities();
    void send(Outgoing outgoing);
    void sendNow(Outgoing outgoing);
    void finished(const std::string& identifier, std::optional<uint> shownId);

    QDBusConnection bus_;
    // Whether the server reads the body as markup, which decides how it is escaped: notices wait
    // for the first answer to that.
    std::optional<bool> bodyMarkup_;
    bool askingCapabilities_ = false;
    std::vector<Outgoing> waiting_;
    std::map<std::string, Slot> slots_;
};

}  // namespace corvane::app
