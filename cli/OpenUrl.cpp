// corvane open-url URL: hands a corvane:// command to the running application over its socket,
// $XDG_RUNTIME_DIR/corvane/command.sock, one line per command, and starts the application in the
// background when nobody listens. A locked item given as a file:// URL or an absolute path is
// opened, which means unlocked. Takes neither the support directory nor the keyring: the
// application does the work.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Arguments.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "Commands/FileManagerMenuModel.h"
#include "FileSystem/ChildSpawn.h"
#include "Records/Paths.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kRetryInterval = std::chrono::milliseconds(150);

// Ten seconds; CORVANE_OPEN_URL_TIMEOUT_MS shortens it for tests.
std::chrono::milliseconds timeLimit() {
    const char* text = std::getenv("CORVANE_OPEN_URL_TIMEOUT_MS");
    char* end = nullptr;
    long value = text ? std::strtol(text, &end, 10) : 0;
    if (!text || *text == '\0' || *end != '\0' || value <= 0 || value > 600000)
        return std::chrono::seconds(10);
    return std::chrono::milliseconds(value);
}

std::string describe(std::chrono::milliseconds limit) {
    auto ms = limit.count();
    if (ms % 1000 != 0) return std::to_string(ms) + " milliseconds";
    return std::to_string(ms / 1000) + (ms == 1000 ? " second" : " seconds");
}

// The path a file:// URL (of this machine) or an absolute path names.
std::optional<std::string> localPath(std::string_view text) {
    if (text.starts_with('/')) return std::string(text);
    if (!text.starts_with("file://")) return std::nullopt;
    text.remove_prefix(7);
    auto slash = text.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    auto host = text.substr(0, slash);
    if (!host.empty() && host != "localhost") return std::nullopt;
    text.remove_prefix(slash);
    return CorvaneCommand::percentDecoded(text.substr(0, text.find_first_of("?#")));
}

// The line for the application: a command as given, or the unlock command for a locked item.
std::optional<std::string> commandLine(const std::string& text) {
    if (CorvaneCommand::parse(text)) return text;
    auto path = localPath(text);
    if (!path) return std::nullopt;
    while (path->size() > 1 && path->ends_with('/')) path->pop_back();
    if (!FileManagerMenuModel::isLockedItem(*path)) return std::nullopt;
    std::string line = CorvaneCommand{CorvaneCommand::Kind::unlock, {*path}}.url();
    // A NUL in the name or an overlong path: the application would refuse the line.
    if (!CorvaneCommand::parse(line)) return std::nullopt;
    return line;
}

// Whether a socket is there to try; throws when what is there must not be given commands.
bool socketPresent(const std::string& path, const CommandContext& context) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return false;
    if (!S_ISSOCK(status.st_mode))
        throw CommandFailure(context.forError(path) +
                             " is not a socket, so Corvane cannot be reached there.");
    if (status.st_uid != geteuid())
        throw CommandFailure(context.forError(path) +
                             " belongs to another user; Corvane's commands do not go there.");
    return true;
}

void setTimeouts(int fd, Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    long micros = std::max<long>(left.count(), 1000);
    timeval limit{micros / 1000000, micros % 1000000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

enum class Delivery { nobodyListens, delivered, unanswered };

// Sends the line and waits for the application to close its end, which it does once it has read
// the line.
Delivery deliver(const std::string& path, const std::string& line, Clock::time_point deadline,
                 const CommandContext& context) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw CommandFailure(context.forError(path) + " is too long for a socket's path.");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw CommandFailure(std::string("No socket: ") + std::strerror(errno) + ".");
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    setTimeouts(fd, deadline);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return Delivery::nobodyListens;

    // The socket file could have been swapped since it was checked; the listener cannot.
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != geteuid())
        throw CommandFailure(context.forError(path) +
                             " is served by another user; Corvane's commands do not go there.");

    std::string message = line + "\n";
    for (std::size_t done = 0; done < message.size();) {
        ssize_t n = send(fd, message.data() + done, message.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return Delivery::unanswered;
        done += std::size_t(n);
    }
    shutdown(fd, SHUT_WR);
    char ignored[256];
    for (;;) {
        ssize_t n = read(fd, ignored, sizeof ignored);
        if (n == 0) return Delivery::delivered;
        if (n < 0 && errno != EINTR) return Delivery::unanswered;
    }
}

bool isExecutableFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

// Beside this program first, so that a build or an installation starts its own application.
std::optional<std::string> applicationProgram() {
    constexpr const char* name = "/corvane-app";
    char self[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) {
        std::string folder(self, std::size_t(length));
        folder.resize(folder.rfind('/'));
        if (isExecutableFile(folder + name)) return folder + name;
    }
    const char* search = std::getenv("PATH");
    for (std::string_view rest = search ? search : ""; !rest.empty();) {
        auto colon = std::min(rest.find(':'), rest.size());
        std::string folder(rest.substr(0, colon));
        rest.remove_prefix(std::min(colon + 1, rest.size()));
        if (folder.starts_with('/') && isExecutableFile(folder + name)) return folder + name;
    }
    return std::nullopt;
}

// Starts the application in its own session, detached from this terminal, in "/" so that it
// holds no folder an unlocked item could be in, with nothing blocked that this program blocks.
std::optional<pid_t> startApplication() {
    auto program = applicationProgram();
    if (!program) return std::nullopt;
    ChildSpawn spawn(POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_addopen(spawn.actions(), STDIN_FILENO, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_adddup2(spawn.actions(), STDIN_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(spawn.actions(), STDIN_FILENO, STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(spawn.actions(), STDERR_FILENO + 1);
    posix_spawn_file_actions_addchdir_np(spawn.actions(), "/");
    std::string background = "--background";
    char* argv[] = {program->data(), background.data(), nullptr};
    pid_t child = 0;
    int error = spawn.start(child, program->c_str(), argv);
    if (error != 0) return std::nullopt;
    return child;
}

}  // namespace

int runOpenUrl(CommandContext& context, const Words& words, std::istream&, std::ostream&,
               std::ostream&) {
    Arguments arguments = Arguments::parse(words, {});
    if (arguments.operands.size() != 1) throw UsageError("open-url takes one URL");
    auto line = commandLine(arguments.operands.front());
    if (!line)
        throw CommandFailure("That is neither a Corvane command URL nor a locked item to open.");
    auto runtime = sessionRuntimeFolder();
    if (!runtime)
        throw CommandFailure(
            "Corvane cannot be reached: this session has no runtime folder "
            "(XDG_RUNTIME_DIR).");
    std::string socketPath = *runtime + "/command.sock";

    auto limit = timeLimit();
    auto deadline = Clock::now() + limit;
    bool started = false;
    // The application outlives this command; it is reaped here only when it ends first.
    struct Child {
        pid_t pid = -1;
        bool ended() { return pid > 0 && waitpid(pid, nullptr, WNOHANG) == pid; }
        ~Child() { ended(); }
    } application;
    for (;;) {
        if (socketPresent(socketPath, context)) {
            auto delivery = deliver(socketPath, *line, deadline, context);
            if (delivery == Delivery::delivered) return 0;
            if (delivery == Delivery::unanswered) break;
        }
        if (!started) {
            auto child = startApplication();
            if (!child) throw CommandFailure("Corvane is not running and could not be started.");
            started = true;
            application.pid = *child;
        }
        if (application.ended()) application.pid = -1;
        context.cancel().check();
        auto now = Clock::now();
        if (now >= deadline) break;
        std::this_thread::sleep_for(std::min<Clock::duration>(kRetryInterval, deadline - now));
    }
    throw CommandFailure("Corvane did not answer within " + describe(limit) + ".");
}

}  // namespace corvane::cli
