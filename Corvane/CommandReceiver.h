// Turns the lines that reach the command socket into the model's commands: a
// locked item's path or file URL unlocks it, a command URL does what it says
// once its sender is known or the user agreed, anything else is dropped. Main
// thread only.
#pragma once

#include <QByteArray>
#include <QObject>
#include <deque>
#include <optional>
#include <string>

#include "AppModel.h"
#include "Commands/CorvaneCommand.h"
#include "Commands/SenderCheck.h"
#include "Notifier.h"
#include "Prompter.h"
#include "Task.h"

namespace corvane::app {

class CommandReceiver : public QObject {
    Q_OBJECT

public:
    CommandReceiver(AppModel& model, Prompter& prompter, Notifier& notifier,
                    SenderCheck::Facts facts = SenderCheck::Facts::current(),
                    QObject* parent = nullptr);

    // A locked item named by a file URL or an absolute path, as a file manager
    // opens it.
    static std::optional<std::string> lockedItemPath(const QByteArray& message);
    // The command a line asks for, read once: a locked item's path or file URL unlocks it.
    static std::optional<CorvaneCommand> parse(const QByteArray& message);

public slots:
    // One line and the process id the kernel gave for the peer that sent it.
    void receive(const QByteArray& message, qint64 peerPid);

private:
    struct Waiting {
        CorvaneCommand command;
        bool confirm;
    };

    Task<> deliverInOrder();
    Task<> deliver(CorvaneCommand command, bool confirm);
    bool isOpen(const std::string& path) const;

    AppModel& model_;
    Prompter& prompter_;
    Notifier& notifier_;
    SenderCheck::Facts facts_;
    std::deque<Waiting> waiting_;
    bool delivering_ = false;
};

}  // namespace corvane::app
