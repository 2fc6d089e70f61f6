#include "FileSystem/GocryptfsTool.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <system_error>
#include <thread>

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

std::vector<std::string> argumentsOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    std::string raw((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<std::string> arguments;
    for (std::size_t start = 0; start < raw.size();) {
        std::size_t end = raw.find('\0', start);
        if (end == std::string::npos) end = raw.size();
        arguments.push_back(raw.substr(start, end - start));
        start = end + 1;
    }
    return arguments;
}

// The gocryptfs process serving `mount`: the one whose own cipher directory and mount point,
// the two paths after "--", are this mount's source and mount point.
std::optional<pid_t> serverOf(const MountEntry& mount) {
    for (pid_t pid : processes()) {
        auto executable = OpenFiles::executablePath(pid);
        if (!executable || lastPathComponent(*executable) != "gocryptfs") continue;
        auto arguments = argumentsOf(pid);
        auto separator = std::find(arguments.begin(), arguments.end(), "--");
        if (std::distance(separator, arguments.end()) != 3) continue;
        if (canonicalPath(separator[1]) == canonicalPath(mount.source) &&
            canonicalPath(separator[2]) == canonicalPath(mount.mountPoint))
            return pid;
    }
    return std::nullopt;
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

void endProcess(pid_t pid) {
    kill(pid, SIGKILL);
    for (int waited = 0; waited < 250; ++waited) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string pidField, name, state;
        // A zombie no longer serves anything; its parent (or init) reaps it.
        if (!(stat >> pidField >> name >> state) || state == "Z") return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::optional<MountEntry> gocryptfsMountAt(const std::string& mountPoint) {
    std::string wanted = canonicalPath(mountPoint);
    for (const auto& mount : MountTable::read())
        if (mount.fileSystemType == kFileSystemType && mount.mountPoint == wanted) return mount;
    return std::nullopt;
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

void GocryptfsTool::attach(const std::string& image, const std::string& mountPoint,
                           const std::string& password, bool readOnly) const {
    requireUsable(password);
    std::vector<std::string> arguments{"-q"};
    if (readOnly) arguments.push_back("-ro");
    arguments.insert(arguments.end(), {"--", image, mountPoint});
    ProcessResult result = ProcessRunner::run(gocryptfs_, arguments, password);
    if (result.status == kWrongPasswordStatus) throw CorvaneError::wrongPassword();
    if (result.status != 0) throw CorvaneError::diskImage(clean(result.output));
}

void GocryptfsTool::changePassword(const std::string& image, const std::string& oldPassword,
                                   const std::string& newPassword) const {
    requireUsable(oldPassword);
    requireUsable(newPassword);
    // An interrupted earlier change leaves its temporary file, and gocryptfs would refuse forever.
    std::string config = image + "/gocryptfs.conf";
    if (access(config.c_str(), F_OK) == 0) unlink((config + ".tmp").c_str());
    ProcessResult result = ProcessRunner::run(gocryptfs_, {"-passwd", "-q", "--", image},
                                              oldPassword + "\n" + newPassword + "\n");
    if (result.status == kWrongPasswordStatus) throw CorvaneError::wrongPassword();
    if (result.status != 0) throw CorvaneError::diskImage(clean(result.output));
}

std::vector<AttachedImage> GocryptfsTool::attachedImages() const {
    std::vector<AttachedImage> attached;
    for (const auto& mount : MountTable::read())
        if (mount.fileSystemType == kFileSystemType)
            attached.push_back({canonicalPath(mount.source), mount.mountPoint});
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
    auto mount = gocryptfsMountAt(mountPoint);
    std::optional<pid_t> server = mount ? serverOf(*mount) : std::nullopt;
    if (mount) dropCachedContents(mount->device);
    ProcessResult result = ProcessRunner::run(fusermount_, {"-u", "-z", mountPoint});
    if (server) endProcess(*server);
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
