#include "CommandReceiver.h"

#include <QMetaObject>

#include <limits>

#include "Records/AppPaths.h"
#include "Engine/ItemName.h"
#include "Records/Paths.h"

namespace corvane::app {

CommandReceiver::CommandReceiver(AppModel& model, Prompter& prompter, Notifier& notifier,
                                 SenderCheck::Facts facts, QObject* parent)
    : QObject(parent),
      model_(model),
      prompter_(prompter),
      notifier_(notifier),
      facts_(std::move(facts)) {}

std::optional<std::string> CommandReceiver::lockedItemPath(const QByteArray& message) {
    QByteArray path;
    if (message.startsWith("file://")) {
        QByteArray rest = message.mid(7);
        if (rest.startsWith("localhost/")) rest = rest.mid(9);
        // A '?' or '#' that belongs to the name is escaped; a bare one starts
        // another part.
        if (!rest.startsWith('/') || rest.contains('?') || rest.contains('#')) return std::nullopt;
        path = QByteArray::fromPercentEncoding(rest);
    } else if (message.startsWith('/')) {
        path = message;
    } else {
        return std::nullopt;
    }
    std::string result = path.toStdString();
    if (result.find('\0') != std::string::npos || !lastPathComponent(result).ends_with(".corvlock"))
        return std::nullopt;
    return result;
}

std::optional<CorvaneCommand> CommandReceiver::parse(const QByteArray& message) {
    // Opening an item asks for its password anyway.
    if (auto item = lockedItemPath(message))
        return CorvaneCommand{CorvaneCommand::Kind::unlock, {*item}};
    return CorvaneCommand::parse(std::string_view(message.constData(), message.size()));
}

void CommandReceiver::receive(const QByteArray& message, qint64 peerPid) {
    auto command = parse(message);
    if (!command) return;
    pid_t peer = peerPid > 0 && peerPid <= std::numeric_limits<pid_t>::max() ? pid_t(peerPid) : 0;
    // Decided before anything waits: the sender may end soon after its line was read, and its
    // id may then go to another process.
    auto sender = SenderCheck::senderIdentifier(peer, facts_);
    bool confirm = command->needsConfirmation(sender, AppPaths::isTestOverride());
    // Commands are carried out one at a time in the order they arrived, whatever each waits
    // for. Questions wait for the event loop, so the sender's connection is closed first and it
    // does not wait on the user.
    waiting_.push_back({std::move(*command), confirm});
    if (waiting_.size() == 1 && !delivering_)
        QMetaObject::invokeMethod(this, [this] { spawn(deliverInOrder()); }, Qt::QueuedConnection);
}

Task<> CommandReceiver::deliverInOrder() {
    if (delivering_) co_return;
    delivering_ = true;
    struct Done {
        bool& delivering;
        ~Done() { delivering = false; }
    } done{delivering_};
    while (!waiting_.empty()) {
        Waiting next = std::move(waiting_.front());
        waiting_.pop_front();
        co_await deliver(std::move(next.command), next.confirm);
    }
}

Task<> CommandReceiver::deliver(CorvaneCommand command, bool confirm) {
    if (confirm && prompter_.choose(command.confirmationQuestion(),
                                    "Only lock it if you asked for this.", {"Lock", "Cancel"}) != 0)
        co_return;
    if (command.kind == CorvaneCommand::Kind::lockNow ||
        command.kind == CorvaneCommand::Kind::reveal) {
        // The menu offers these whether or not the item is open; the model quietly
        // skips what is not, so the user hears it here, from the list as it is now.
        co_await model_.waitUntilReady();
        co_await model_.refresh();
        for (const auto& path : command.paths)
            if (!isOpen(path)) notifier_.post("Corvane", itemName(path) + " is not unlocked.");
    }
    model_.handle(command);
}

bool CommandReceiver::isOpen(const std::string& path) const {
    std::string wanted = canonicalPath(path);
    for (const auto& item : model_.openItems())
        for (const auto& place : {item.lockedURL, item.mountPoint, item.contentURL()})
            if (canonicalPath(place) == wanted) return true;
    return false;
}

}  // namespace corvane::app
