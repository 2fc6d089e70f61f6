// One copy of the application per session: the first copy listens on the Unix socket
// $XDG_RUNTIME_DIR/corvane/command.sock, and later copies and the command URLs hand it one line
// of text each. Peers of another user are dropped unread; every read is non-blocking and
// bounded in size and time. Main thread only (send may be called from any thread).
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QObject>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>

class QSocketNotifier;

namespace corvane::app {

class InstanceChannel : public QObject {
    Q_OBJECT

public:
    static constexpr std::size_t maximumMessage = 64 * 1024;
    static constexpr int peerTimeLimitMs = 2000;
    static constexpr std::size_t maximumPeers = 16;

    explicit InstanceChannel(QObject* parent = nullptr);
    ~InstanceChannel() override;
    InstanceChannel(const InstanceChannel&) = delete;
    InstanceChannel& operator=(const InstanceChannel&) = delete;

    // Nothing when the session has no runtime folder.
    static std::optional<std::string> socketPath();

    // Starts listening. False, quietly, when another copy listens, or there is no runtime folder
    // or the socket cannot be made there.
    bool listen();
    bool isListening() const { return listener_ >= 0; }

    // Hands `message` (one line, without its line break) to the copy that listens; false when
    // none does within `timeoutMs`, or the listener belongs to another user.
    static bool send(const QByteArray& message, int timeoutMs);

signals:
    // Every line a peer sent, and the peer's process id.
    void messageReceived(QByteArray message, qint64 peerPid);
    // The line was "show": another copy was started and this one should come forward.
    void showRequested();

private:
    struct Peer;

    void accept();
    void readFrom(quint64 id);
    void drop(quint64 id);

    int listener_ = -1;
    int lock_ = -1;  // held while listening, so that two copies never take the socket in turns
    std::string path_;
    dev_t device_ = 0;  // the socket file this copy made, so that only it is removed at the end
    ino_t inode_ = 0;
    QSocketNotifier* acceptNotifier_ = nullptr;
    quint64 nextPeer_ = 0;
    std::map<quint64, std::unique_ptr<Peer>> peers_;
};

}  // namespace corvane::app
