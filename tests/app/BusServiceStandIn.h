// A D-Bus service of a test's own on a private bus: it owns its well-known names, records every
// method call made to its objects and answers each with what the test's function returns (an
// UnknownMethod error when that is nothing), and it sends signals as the owner of those names.
// Created and read on the main thread; calls may arrive on Qt's D-Bus thread.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QStringList>
#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace corvane::testing {

class BusServiceStandIn : public QDBusVirtualObject {
public:
    // The reply's arguments for a call; nothing for an error reply.
    using Answer = std::function<std::optional<QVariantList>(const QDBusMessage&)>;

    // Answers for `path` and every path below it.
    BusServiceStandIn(const std::string& address, const QStringList& services, const QString& path,
                      Answer answer)
        : name_(QStringLiteral("standin-%1").arg(counter_++)),
          bus_(QDBusConnection::connectToBus(QString::fromStdString(address), name_)),
          answer_(std::move(answer)) {
        bus_.registerVirtualObject(path, this, QDBusConnection::SubPath);
        for (const auto& service : services) bus_.registerService(service);
    }
    ~BusServiceStandIn() override {
        bus_ = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus(name_);
    }

    // The calls to `member` so far, in order.
    std::vector<QDBusMessage> calls(const QString& member) const {
        std::lock_guard guard(lock_);
        std::vector<QDBusMessage> found;
        for (const auto& call : calls_)
            if (call.member() == member) found.push_back(call);
        return found;
    }

    void emitSignal(const QString& path, const QString& interface, const QString& name,
                    const QVariantList& arguments) {
        QDBusMessage signal = QDBusMessage::createSignal(path, interface, name);
        signal.setArguments(arguments);
        bus_.send(signal);
    }

    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        {
            std::lock_guard guard(lock_);
            calls_.push_back(message);
        }
        auto answer = answer_(message);
        connection.send(
            answer ? message.createReply(*answer)
                   : message.createErrorReply(QDBusError::UnknownMethod, message.member()));
        return true;
    }

private:
    static inline std::atomic<int> counter_{0};
    QString name_;
    QDBusConnection bus_;
    Answer answer_;
    mutable std::mutex lock_;
    std::vector<QDBusMessage> calls_;
};

}  // namespace corvane::testing
