#include "FileSystem/GocryptfsTool.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <system_error>

#include "FileSystem/MountTable.h"
#include "FileSystem/ProcessRunner.h"
#include "Records/CorvaneError.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

constexpr int kWrongPasswordStatus = 12;
constexpr std::string_view kFileSystemType = "fuse.gocryptfs";

void requireUsable(const std::string& password) {
    if (auto problem = GocryptfsTool::passwordProblem(password))
        throw CorvaneError::diskImage(*problem);
}

// gocryptfs follows a link or waits forever on a pipe where its configuration should be, so an
// image without a plain gocryptfs.conf is refused before gocryptfs sees it.
void requireIntact(const std::string& image) {
    std::string config = image + "/gocryptfs.conf";
    struct stat status {};
    if (lstat(config.c_str(), &status) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            throw std::system_error(errno, std::generic_category(), config);
        throw CorvaneError::diskImage("the locked item is damaged: its gocryptfs.conf is missing.");
    }
    if (!S_ISREG(status.st_mode))
        throw CorvaneError::diskImage(
            "the locked item is damaged: its gocryptfs.conf is not a regular file.");
}

std::vector<pid_t> processes() {
    std::vector<pid_t> found;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    if (!proc) return found;
    while (dirent* entry = readdir(proc.get())) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (*end == '\0' && pid > 0) found.push_back(static_cast<pid_t>(pid));
    }
    return found;
}

// The whole contents of a small /proc file, or nothing when it cannot be read.
std::optional<std::string> procFile(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(fd, buffer, sizeof buffer)) > 0 && text.size() < (1u << 20))
        text.append(buffer, static_cast<std::size_t>(count));
    close(fd);
    if (count < 0) return std::nullopt;
    return text;
}

// The target of a symbolic link, byte for byte.
std::optional<std::string> linkTarget(const std::string& path) {
    std::string target(4096, '\0');
    ssize_t length = readlink(path.c_str(), target.data(), target.size());
    if (length < 0 || static_cast<std::size_t>(length) >= target.size()) return std::nullopt;
    target.resize(static_cast<std::size_t>(length));
    return target;
}

std::vector<std::string> argumentsOf(pid_t pid) {
    std::string raw = procFile("/proc/" + std::to_string(pid) + "/cmdline").value_or("");
    std::vector<std::string> arguments;
    for (std::size_t start = 0; start < raw.size();) {
        std::size_t end = raw.find('\0', start);
        if (end == std::string::npos) end = raw.size();
        arguments.push_back(raw.substr(start, end - start));
        start = end + 1;
    }
    return arguments;
}

// The number by which the kernel names the FUSE connection behind a mount of `device`.
unsigned long connectionOf(dev_t device) {
    return (static_cast<unsigned long>(major(device)) << 20) | minor(device);
}

// The path at which the kernel lists a mount on `path`, found without asking the mounted file
// system anything: a server that hangs must not hang the caller too.
std::string mountPointPath(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    std::string name = lastPathComponent(trimmed);
    // A mount point is never a symbolic link, so a link is followed to what it names.
    if (name.empty() || name == "." || name == ".." || linkTarget(trimmed))
        return canonicalPath(trimmed);
    std::size_t slash = trimmed.rfind('/');
    std::string parent = slash == std::string::npos ? "." : trimmed.substr(0, slash);
    std::string resolvedParent = canonicalPath(parent.empty() ? "/" : parent);
    return (resolvedParent == "/" ? "" : resolvedParent) + "/" + name;
}

// `configured` is the canonical path of the gocryptfs this tool runs.
bool isGocryptfs(const std::string& executable, const std::string& configured) {
    std::string path = executable;
    // A program replaced while it runs still serves its mount.
    constexpr std::string_view replaced = " (deleted)";
    if (path.ends_with(replaced)) path.resize(path.size() - replaced.size());
    return lastPathComponent(path) == "gocryptfs" || path == configured;
}

std::optional<GocryptfsTool::Server> gocryptfsProcess(pid_t pid, const std::string& configured) {
    std::string folder = "/proc/" + std::to_string(pid);
    auto executable = linkTarget(folder + "/exe");
    if (!executable || !isGocryptfs(*executable, configured)) return std::nullopt;

    // The two paths come last, after "--" when the caller marked the end of the options.
    auto arguments = argumentsOf(pid);
    auto separator = std::find(arguments.begin(), arguments.end(), "--");
    if (separator != arguments.end() ? std::distance(separator, arguments.end()) != 3
                                     : arguments.size() < 3 || arguments.end()[-2].starts_with('-'))
        return std::nullopt;
    GocryptfsTool::Server found{pid, arguments.end()[-2], arguments.end()[-1], {}};

    // A server holds /dev/fuse open; the process that started it and waits does not.
    bool holdsFuse = false;
    std::unique_ptr<DIR, int (*)(DIR*)> descriptors(opendir((folder + "/fd").c_str()), closedir);
    if (!descriptors) return std::nullopt;
    while (dirent* entry = readdir(descriptors.get())) {
        if (linkTarget(folder + "/fd/" + entry->d_name) != "/dev/fuse") continue;
        holdsFuse = true;
        std::string info = procFile(folder + "/fdinfo/" + entry->d_name).value_or("");
        constexpr std::string_view key = "\nfuse_connection:";
        std::size_t at = info.find(key);
        if (at != std::string::npos)
            found.connections.push_back(std::strtoul(info.c_str() + at + key.size(), nullptr, 10));
    }
    if (!holdsFuse) return std::nullopt;
    return found;
}

std::vector<GocryptfsTool::Server> gocryptfsProcesses(const std::string& configured) {
    std::vector<GocryptfsTool::Server> found;
    for (pid_t pid : processes())
        if (auto process = gocryptfsProcess(pid, configured)) found.push_back(std::move(*process));
    return found;
}

// The one gocryptfs process serving `mount`; nothing when none or more than one can claim it.
std::optional<GocryptfsTool::Server> serverOf(
    const MountEntry& mount, const std::vector<GocryptfsTool::Server>& candidates) {
    std::optional<GocryptfsTool::Server> server;
    for (const auto& process : candidates) {
        if (!GocryptfsTool::serves(process, mount)) continue;
        if (server) return std::nullopt;
        server = process;
    }
    return server;
}

// Drops from the kernel's cache what any process has read of files it still holds open on the
// device, while the mount still answers: afterwards their reads must reach the (ended) server.
void dropCachedContents(dev_t device) {
    for (pid_t pid : processes()) {
        std::string folder = "/proc/" + std::to_string(pid) + "/fd";
        std::unique_ptr<DIR, int (*)(DIR*)> descriptors(opendir(folder.c_str()), closedir);
        if (!descriptors) continue;
        while (dirent* entry = readdir(descriptors.get())) {
            std::string link = folder + "/" + entry->d_name;
            struct stat status {};
            if (stat(link.c_str(), &status) != 0 || status.st_dev != device ||
                !S_ISREG(status.st_mode))
                continue;
            int fd = open(link.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
            if (fd < 0) continue;
            posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
            close(fd);
        }
    }
}

// A process descriptor: it names one process for as long as it is open, however its number is
// reused afterwards.
class ProcessHandle {
public:
    explicit ProcessHandle(pid_t pid) : fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
    ~ProcessHandle() {
        if (fd_ >= 0) close(fd_);
    }
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;

    bool isOpen() const { return fd_ >= 0; }

    // Kills the process and waits up to `limit` for it to end; whether it ended.
    bool end(std::chrono::milliseconds limit) const {
        if (syscall(SYS_pidfd_send_signal, fd_, SIGKILL, nullptr, 0) != 0 && errno != ESRCH)
            return false;
        auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd ended{fd_, POLLIN, 0};
            // Readable once the process has exited; a zombie no longer serves anything.
            int ready = poll(&ended, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
            if (ready > 0) return true;
            if (ready == 0 || errno != EINTR) return false;
        }
    }

private:
    int fd_;
};

// A mount whose server has died answers every request with ENOTCONN; it shows nothing any more.
bool serverIsGone(const std::string& mountPoint) {
    struct statx status {};
    return statx(AT_FDCWD, mountPoint.c_str(), AT_STATX_FORCE_SYNC, STATX_TYPE, &status) != 0 &&
           errno == ENOTCONN;
}

// The mount that a path at `mountPoint` reaches now: the last one mounted there.
std::optional<MountEntry> topMountAt(const std::string& mountPoint) {
    std::string wanted = mountPointPath(mountPoint);
    std::optional<MountEntry> top;
    for (const auto& mount : MountTable::read())
        if (mount.mountPoint == wanted) top = mount;
    return top;
}

}  // namespace

std::optional<std::string> GocryptfsTool::passwordProblem(const std::string& password) {
    if (password.empty()) return "an empty password cannot protect a locked item.";
    if (password.find_first_of("\n\r") != std::string::npos)
        return "a password cannot contain a line break.";
    if (password.size() > maximumPasswordBytes)
        return "a password cannot be longer than " + std::to_string(maximumPasswordBytes) +
               " bytes.";
    return std::nullopt;
}

void GocryptfsTool::create(const std::string& image, const std::string&,
                           const std::string& password) const {
    requireUsable(password);
    if (mkdir(image.c_str(), 0700) != 0)
        throw std::system_error(errno, std::generic_category(), image);
    ProcessResult result = ProcessRunner::run(gocryptfs_, {"-init", "-q", "--", image}, password);
    if (result.status != 0) throw CorvaneError::diskImage(clean(result.output));
}

bool GocryptfsTool::isImage(int folder, const std::string& name) const {
    // -init writes the configuration last; the folder it starts from is made first.
    return isFolderHolding(folder, name, "gocryptfs.conf",
                           {"gocryptfs.conf.tmp", "gocryptfs.diriv"});
}

void GocryptfsTool::attach(const std::string& image, const std::string& mountPoint,
                           const std::string& password, bool readOnly) const {
    requireUsable(password);
    requireIntact(image);
    // The server changes to "/" once mounted, so only absolute paths on its command line say later
    // which image it serves.
    std::vector<std::string> arguments{"-q"};
    if (readOnly) arguments.push_back("-ro");
    if (const std::int64_t idle = idleLimitSeconds_; idle > 0 && !readOnly)
        arguments.insert(arguments.end(), {"-idle", std::to_string(idle) + "s"});
    arguments.insert(arguments.end(), {"--", std::filesystem::absolute(image).string(),
                                       std::filesystem::absolute(mountPoint).string()});
    ProcessResult result = ProcessRunner::run(gocryptfs_, arguments, password);
    if (result.status == kWrongPasswordStatus) throw CorvaneError::wrongPassword();
    if (result.status != 0) throw CorvaneError::diskImage(clean(result.output));
}

void GocryptfsTool::changePassword(const std::string& image, const std::string& oldPassword,
                                   const std::string& newPassword) const {
    requireUsable(oldPassword);
    requireUsable(newPassword);
    requireIntact(image);
    // An interrupted earlier change leaves its temporary file, and gocryptfs would refuse forever.
    unlink((image + "/gocryptfs.conf.tmp").c_str());
    ProcessResult result =
        ProcessRunner::run(gocryptfs_, {"-passwd", "-q", "--", image},
                           ProcessRunner::joinedInput({oldPassword, newPassword}, '\n'));
    if (result.status == kWrongPasswordStatus) throw CorvaneError::wrongPassword();
    if (result.status != 0) throw CorvaneError::diskImage(clean(result.output));
}

bool GocryptfsTool::serves(const Server& server, const MountEntry& mount) {
    if (!server.connections.empty())
        return std::find(server.connections.begin(), server.connections.end(),
                         connectionOf(mount.device)) != server.connections.end();
    return server.mountPoint.starts_with('/') &&
           mountPointPath(server.mountPoint) == mount.mountPoint;
}

std::vector<AttachedImage> GocryptfsTool::attachedImages() const {
    std::vector<AttachedImage> attached;
    std::optional<std::vector<GocryptfsTool::Server>> servers;
    for (const auto& mount : MountTable::read()) {
        if (mount.fileSystemType != kFileSystemType) continue;
        if (!servers) servers = gocryptfsProcesses(canonicalPath(gocryptfs_));
        // The source field is mangled on its way into the table (a comma becomes "_", two
        // backslashes one), so the server's own command line names the image where it can.
        auto server = serverOf(mount, *servers);
        bool named = server && server->cipherDirectory.starts_with('/');
        attached.push_back(
            {canonicalPath(named ? server->cipherDirectory : mount.source), mount.mountPoint});
    }
    return attached;
}

ProcessResult GocryptfsTool::detachAttempt(const std::string& mountPoint, bool force) const {
    if (force) return unmountForcibly(mountPoint);
    return ProcessRunner::run(fusermount_, {"-u", mountPoint});
}

bool GocryptfsTool::isBusy(const ProcessResult& result) const {
    return result.output.find("Device or resource busy") != std::string::npos;
}

void GocryptfsTool::forceDetach(const std::string& mountPoint) const {
    ProcessResult result = unmountForcibly(mountPoint);
    if (result.status != 0) throw CorvaneError::diskImage(clean(result.output));
}

ProcessResult GocryptfsTool::unmountForcibly(const std::string& mountPoint) const {
    auto mount = topMountAt(mountPoint);
    if (!mount || mount->fileSystemType != kFileSystemType)
        throw CorvaneError::diskImage("no locked item is open at " + mountPoint + ".");

    // The handle is taken before anything changes, and the process checked again through it, so
    // that a number reused meanwhile is never signalled.
    std::string executable = canonicalPath(gocryptfs_);
    std::unique_ptr<ProcessHandle> server;
    if (auto found = serverOf(*mount, gocryptfsProcesses(executable))) {
        server = std::make_unique<ProcessHandle>(found->pid);
        auto again = gocryptfsProcess(found->pid, executable);
        if (!server->isOpen() || !again || !GocryptfsTool::serves(*again, *mount)) server.reset();
    }
    if (!server) {
        if (serverIsGone(mountPoint))
            return ProcessRunner::run(fusermount_, {"-u", "-z", mountPoint});
        throw CorvaneError::diskImage(
            "the gocryptfs process that serves the locked item could not be identified, so it "
            "stays open.");
    }

    dropCachedContents(mount->device);
    ProcessResult result = ProcessRunner::run(fusermount_, {"-u", "-z", mountPoint});
    if (result.status != 0) return result;
    if (!server->end(std::chrono::seconds(10)))
        throw CorvaneError::diskImage(
            "the gocryptfs process that served the locked item did not end, so its files may "
            "still be readable.");
    return result;
}

std::string GocryptfsTool::clean(const std::string& output) {
    return oneLine(output, [](std::string line) -> std::optional<std::string> {
        // Where no system log runs, gocryptfs says so on every start; that is not its report.
        if (line.find("Unix syslog delivery error") != std::string::npos) return std::nullopt;
        return line;
    });
}

}  // namespace corvane
