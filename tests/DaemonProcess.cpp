#include "DaemonProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "TestSupport.h"

extern char** environ;

namespace corvane::testing {

namespace {

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& overrides) {
    std::vector<std::string> merged;
    auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    for (char** entry = environ; *entry; ++entry) {
        std::string current = *entry;
        bool replaced = false;
        for (const auto& override : overrides)
            replaced = replaced || nameOf(override) == nameOf(current);
        if (!replaced) merged.push_back(current);
    }
    merged.insert(merged.end(), overrides.begin(), overrides.end());
    return merged;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (auto& each : strings) result.push_back(each.data());
    result.push_back(nullptr);
    return result;
}

}  // namespace

std::string DaemonProcess::find(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string candidate = folder + "/" + program;
        if (!folder.empty() && access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    throw std::runtime_error(program + " is not installed");
}

DaemonProcess::DaemonProcess(const std::vector<std::string>& arguments, const std::string& errorLog,
                             const std::vector<std::string>& environment, const std::string& input)
    : errorLog_(errorLog) {
    // Everything the child needs is prepared before fork: after it, only exec-safe calls.
    std::string program =
        arguments.at(0).find('/') == std::string::npos ? find(arguments[0]) : arguments[0];
    std::vector<std::string> argumentCopy = arguments;
    std::vector<std::string> environmentCopy = mergedEnvironment(environment);
    auto argv = pointers(argumentCopy);
    auto envp = pointers(environmentCopy);
    int errors = open(errorLog.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (errors < 0) throw std::runtime_error("cannot create " + errorLog);
    int inputPipe[2], outputPipe[2];
    if (pipe2(inputPipe, O_CLOEXEC) != 0) {
        close(errors);
        throw std::runtime_error("no pipe");
    }
    if (pipe2(outputPipe, O_CLOEXEC) != 0) {
        close(errors);
        close(inputPipe[0]);
        close(inputPipe[1]);
        throw std::runtime_error("no pipe");
    }
    // Written before the child exists, into the pipe's buffer: no daemon that exits early or never
    // reads can stop the test on a full pipe or a SIGPIPE.
    bool written = input.empty() || write(inputPipe[1], input.data(), input.size()) ==
                                        static_cast<ssize_t>(input.size());
    close(inputPipe[1]);
    if (!written) {
        close(errors);
        close(inputPipe[0]);
        close(outputPipe[0]);
        close(outputPipe[1]);
        throw std::runtime_error("cannot hand " + program + " its input");
    }
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // A test binary that crashes must not leave daemons behind.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        dup2(inputPipe[0], STDIN_FILENO);
        dup2(outputPipe[1], STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(errors);
    close(inputPipe[0]);
    close(outputPipe[1]);
    output_ = outputPipe[0];
    if (pid_ < 0) {
        close(output_);
        throw std::runtime_error("cannot start " + program);
    }
}

DaemonProcess::~DaemonProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                break;
            }
            usleep(5000);
        }
    }
    if (output_ >= 0) close(output_);
}

std::string DaemonProcess::readLine(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (auto end = pending_.find('\n'); end != std::string::npos) {
            std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd ready{output_, POLLIN, 0};
        if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0)
            throw std::runtime_error("no line from the daemon in time: " + readFile(errorLog_));
        char buffer[512];
        ssize_t count = read(output_, buffer, sizeof buffer);
        if (count <= 0)
            throw std::runtime_error("the daemon ended its output: " + readFile(errorLog_));
        pending_.append(buffer, static_cast<std::size_t>(count));
    }
}

}  // namespace corvane::testing
