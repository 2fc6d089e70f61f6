#include "FileSystem/ProcessRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <system_error>
#include <thread>

#include "FileSystem/ChildSpawn.h"
#include "Records/CorvaneError.h"
#include "Records/UTF8.h"

namespace corvane {

namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(20);

class Pipe {
public:
    Pipe() {
        if (pipe2(fds_, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    int readEnd() const { return fds_[0]; }
    int writeEnd() const { return fds_[1]; }
    void closeRead() { closeEnd(0); }
    void closeWrite() { closeEnd(1); }

private:
    void closeEnd(int end) {
        if (fds_[end] >= 0) close(fds_[end]);
        fds_[end] = -1;
    }
    int fds_[2] = {-1, -1};
};

// Collects the child's output on its own thread from before the launch, so that a child writing
// more than a pipe holds never blocks.
class OutputBuffer {
public:
    explicit OutputBuffer(int fd) : reader_([this, fd] { readToEnd(fd); }) {}
    ~OutputBuffer() { finish(); }

    void finish() {
        if (reader_.joinable()) reader_.join();
    }
    std::string data() {
        std::lock_guard guard(lock_);
        return data_;
    }

private:
    void readToEnd(int fd) {
        char chunk[65536];
        for (;;) {
            ssize_t n = read(fd, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return;
            std::lock_guard guard(lock_);
            data_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    std::mutex lock_;
    std::string data_;
    std::thread reader_;
};

void writeAll(int fd, const std::string& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the child stopped reading; what it does then is in its status
        written += static_cast<std::size_t>(n);
    }
}

int waitForExit(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

pid_t spawn(const std::string& executablePath, const std::vector<std::string>& arguments, int input,
            int output, int workingFolder) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(executablePath.c_str()));
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    // Its own process group, so a Ctrl-C at the terminal reaches the user's Cancel, not the tool.
    pid_t child = 0;
    int error = ChildSpawn::startInOwnGroup(child, executablePath.c_str(), argv.data(), input,
                                            output, workingFolder);
    if (error != 0) throw std::system_error(error, std::generic_category(), executablePath);
    return child;
}

}  // namespace

std::string ProcessRunner::joinedInput(std::initializer_list<std::string_view> parts,
                                       char terminator) {
    std::size_t size = 0;
    for (auto part : parts) size += part.size() + 1;
    std::string joined;
    joined.reserve(size);
    for (auto part : parts) {
        joined += part;
        joined += terminator;
    }
    return joined;
}

ProcessResult ProcessRunner::run(const std::string& executablePath,
                                 const std::vector<std::string>& arguments,
                                 std::optional<std::string> input, std::optional<double> timeout,
                                 const CancelToken* cancel, const Watch& watch, int workingFolder) {
    // Whatever the child was given is not left in memory that is reused later.
    struct Wipe {
        std::optional<std::string>& text;
        ~Wipe() {
            if (text) explicit_bzero(text->data(), text->size());
        }
    } wipe{input};

    static std::once_flag ignoreBrokenPipes;
    std::call_once(ignoreBrokenPipes, [] { signal(SIGPIPE, SIG_IGN); });

    Pipe inputPipe, outputPipe;
    OutputBuffer buffer(outputPipe.readEnd());
    pid_t child = 0;
    try {
        child = spawn(executablePath, arguments, inputPipe.readEnd(), outputPipe.writeEnd(),
                      workingFolder);
    } catch (...) {
        outputPipe.closeWrite();  // lets the reader see the end
        buffer.finish();
        throw;
    }
    // Only the child holds these now, so its exit ends the reader and its reads see the end.
    inputPipe.closeRead();
    outputPipe.closeWrite();

    if (input) {
        writeAll(inputPipe.writeEnd(), *input);
        explicit_bzero(input->data(), input->size());
    }
    inputPipe.closeWrite();

    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> deadline;
    if (timeout)
        deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(*timeout));

    bool timedOut = false;
    int status = 0;
    Clock::time_point nextWatch = Clock::now() + watchInterval;
    for (;;) {
        pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child || (done < 0 && errno != EINTR)) break;
        if (cancel && cancel->isCancelled()) {
            kill(child, SIGTERM);
            status = waitForExit(child);
            break;
        }
        if (deadline && Clock::now() >= *deadline) {
            kill(child, SIGTERM);
            timedOut = true;
            status = waitForExit(child);
            break;
        }
        if (watch && Clock::now() >= nextWatch) {
            try {
                watch(child);
            } catch (...) {
                kill(child, SIGTERM);
                waitForExit(child);
                buffer.finish();
                throw;
            }
            nextWatch = Clock::now() + watchInterval;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
    buffer.finish();

    if (cancel && cancel->isCancelled()) throw CorvaneError::cancelled();
    int code = WIFEXITED(status)     ? WEXITSTATUS(status)
               : WIFSIGNALED(status) ? WTERMSIG(status)
                                     : status;
    return {code, UTF8::lenient(buffer.data()), timedOut};
}

}  // namespace corvane
