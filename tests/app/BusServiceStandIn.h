// A D-Bus service of a test's own on a private bus: it owns a well-known name, records every
// method call made to its one object and answers each with what the test's function returns.
// Created and read on the main thread; calls may arrive on Qt's D-Bus thread.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QStringList>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace corvane::testing {

class BusServiceStandIn : public QDBusVirtualObject {
public:
    // The reply's arguments for a call.
    using Answer = std::function<QVariantList(const QDBusMessage&)>;

    BusServiceStandIn(const std::string& address, const QString& service, const QString& path,
                      Answer answer)
        : name_(QStringLiteral("standin-%1").arg(counter_++)),
          bus_(QDBusConnection::connectToBus(QString::fromStdString(address), name_)),
          answer_(std::move(answer)) {
        bus_.registerVirtualObject(path, this);
        bus_.registerService(service);
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

    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        std::lock_guard guard(lock_);
        calls_.push_back(message);
        connection.send(message.createReply(answer_(message)));
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
