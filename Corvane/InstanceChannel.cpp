#include "InstanceChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "Commands/SenderCheck.h"
#include "Records/Paths.h"

namespace corvane::app {

struct InstanceChannel::Peer {
    int fd = -1;
    qint64 pid = 0;
    std::optional<SenderCheck::Process> seen;  // the sender as it connected
    QByteArray received;
    QSocketNotifier* notifier = nullptr;
    QTimer* deadline = nullptr;
};

namespace {

std::optional<sockaddr_un> addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return std::nullopt;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

std::optional<ucred> credentialsOf(int fd) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
    return credentials;
}

// Connects without waiting past `deadline`; -1 when nobody listens. A full backlog means
// someone listens but is busy: retried until the deadline.
int connectTo(const std::string& path, std::chrono::steady_clock::time_point deadline) {
    auto address = addressOf(path);
    if (!address) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    for (;;) {
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0)
            return fd;
        if (errno != EAGAIN && errno != EINTR) break;
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// A private folder of ours; one that another program made looser is tightened.
bool preparePrivateFolder(const std::string& folder) {
    if (mkdir(folder.c_str(), 0700) == 0) return true;
    if (errno != EEXIST) return false;
    struct stat status {};
    if (lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != geteuid())
        return false;
    return (status.st_mode & 077) == 0 || chmod(folder.c_str(), 0700) == 0;
}

}  // namespace

InstanceChannel::InstanceChannel(QObject* parent) : QObject(parent) {}

InstanceChannel::~InstanceChannel() {
    while (!peers_.empty()) drop(peers_.begin()->first);
    if (listener_ < 0) return;
    delete acceptNotifier_;
    close(listener_);
    struct stat status {};
    if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_)
        unlink(path_.c_str());
    close(lock_);
}

std::optional<std::string> InstanceChannel::socketPath() {
    auto folder = sessionRuntimeFolder();
    if (!folder) return std::nullopt;
    return *folder + "/command.sock";
}

bool InstanceChannel::listen() {
    if (listener_ >= 0) return true;
    auto path = socketPath();
    if (!path) return false;
    auto folder = path->substr(0, path->rfind('/'));
    auto address = addressOf(*path);
    if (!address || !preparePrivateFolder(folder)) return false;

    int lock = open((folder + "/command.lock").c_str(),
                    O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (lock < 0) return false;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    auto fail = [&] {
        if (fd >= 0) close(fd);
        close(lock);
        return false;
    };
    if (flock(lock, LOCK_EX | LOCK_NB) != 0 || fd < 0) return fail();
    auto bindSocket = [&] {
        return bind(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0;
    };
    if (!bindSocket()) {
        if (errno != EADDRINUSE) return fail();
        // Left by a copy that ended without cleaning up, or by one from before the lock: only
        // a socket nobody answers on is taken over.
        int probe = connectTo(*path, std::chrono::steady_clock::now());
        if (probe >= 0 || errno == EAGAIN) {
            if (probe >= 0) close(probe);
            return fail();
        }
        struct stat status {};
        if (lstat(path->c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
            unlink(path->c_str()) != 0 || !bindSocket())
            return fail();
    }
    struct stat status {};
    if (chmod(path->c_str(), 0600) != 0 || lstat(path->c_str(), &status) != 0 ||
        ::listen(fd, 16) != 0) {
        unlink(path->c_str());
        return fail();
    }
    listener_ = fd;
    lock_ = lock;
    path_ = *path;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    acceptNotifier_ = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(acceptNotifier_, &QSocketNotifier::activated, this, &InstanceChannel::accept);
    return true;
}

void InstanceChannel::accept() {
    for (;;) {
        int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;
        }
        auto credentials = credentialsOf(fd);
        if (!credentials || credentials->uid != geteuid() || peers_.size() >= maximumPeers) {
            close(fd);
            continue;
        }
        auto id = nextPeer_++;
        auto peer = std::make_unique<Peer>();
        peer->fd = fd;
        peer->pid = credentials->pid;
        peer->seen = SenderCheck::process(credentials->pid);
        peer->notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        connect(peer->notifier, &QSocketNotifier::activated, this, [this, id] { readFrom(id); });
        peer->deadline = new QTimer(this);
        peer->deadline->setSingleShot(true);
        peer->deadline->setTimerType(Qt::PreciseTimer);
        connect(peer->deadline, &QTimer::timeout, this, [this, id] { drop(id); });
        peer->deadline->start(peerTimeLimitMs);
        peers_.emplace(id, std::move(peer));
    }
}

void InstanceChannel::readFrom(quint64 id) {
    auto found = peers_.find(id);
    if (found == peers_.end()) return;
    Peer& peer = *found->second;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(peer.fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return;
        if (n < 0 || (n == 0 && peer.received.isEmpty())) {
            drop(id);
            return;
        }
        peer.received.append(buffer, n);
        auto end = peer.received.indexOf('\n');
        if (end < 0 && n == 0) end = peer.received.size();  // the last line needs no break
        if (std::size_t(end < 0 ? peer.received.size() : end) > maximumMessage) {
            drop(id);
            return;
        }
        if (end < 0) continue;
        // A sender that ran another program since it connected is not the one that connected.
        if (SenderCheck::process(pid_t(peer.pid)) != peer.seen) {
            drop(id);
            return;
        }
        QByteArray message = peer.received.left(end);
        if (message.endsWith('\r')) message.chop(1);
        qint64 pid = peer.pid;
        // The sender waits for its connection to close before it ends, so it is still there,
        // under its own pid, while the receivers decide who sent the line; nothing more is
        // read from it meanwhile.
        peer.notifier->setEnabled(false);
        peer.deadline->stop();
        // A receiver may delete this channel.
        QPointer alive(this);
        emit messageReceived(message, pid);
        if (alive && message == "show") emit showRequested();
        if (alive) drop(id);
        return;
    }
}

void InstanceChannel::drop(quint64 id) {
    auto found = peers_.find(id);
    if (found == peers_.end()) return;
    auto peer = std::move(found->second);
    peers_.erase(found);
    // Possibly inside the notifier's or timer's own signal: they go once it has returned.
    peer->notifier->setEnabled(false);
    peer->notifier->deleteLater();
    peer->deadline->stop();
    peer->deadline->deleteLater();
    close(peer->fd);
}

bool InstanceChannel::send(const QByteArray& message, int timeoutMs) {
    auto path = socketPath();
    if (!path || message.contains('\n') || std::size_t(message.size()) > maximumMessage)
        return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int fd = connectTo(*path, deadline);
    if (fd < 0) return false;
    // The line may carry a command URL: it goes to no other user's program.
    auto credentials = credentialsOf(fd);
    bool sent = credentials && credentials->uid == geteuid();
    QByteArray line = message + '\n';
    for (qsizetype done = 0; sent && done < line.size();) {
        ssize_t n = ::send(fd, line.constData() + done, line.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += n;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd writable{fd, POLLOUT, 0};
        sent = n < 0 && errno == EAGAIN && left.count() > 0 &&
               poll(&writable, 1, int(left.count())) > 0;
    }
    close(fd);
    return sent;
}

}  // namespace corvane::app
