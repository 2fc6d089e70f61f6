// A background program that a test fixture owns: started with fork and exec (no shell), its
// standard output on a pipe for the line it announces itself with, ended by the destructor
// (SIGTERM, SIGKILL after two seconds) or by the kernel when the thread that started it dies.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace corvane::testing {

class DaemonProcess {
public:
    // `arguments[0]` is looked up on PATH. Each `environment` entry ("NAME=value") replaces or
    // adds to this process's environment. `input` (under 64 KiB) is the whole standard input.
    // Standard error goes to the file `errorLog`, so that the daemons' chatter stays out of the
    // test output. Throws std::runtime_error when the program cannot be started.
    DaemonProcess(const std::vector<std::string>& arguments, const std::string& errorLog,
                  const std::vector<std::string>& environment = {}, const std::string& input = {});
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // The next line of standard output without its newline; throws std::runtime_error, with what
    // the daemon wrote to its error log, when none comes within `timeout`.
    std::string readLine(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // The absolute path of `program` on PATH; throws std::runtime_error when there is none.
    static std::string find(const std::string& program);

private:
    std::string errorLog_;
    pid_t pid_ = -1;
    int output_ = -1;
    std::string pending_;
};

}  // namespace corvane::testing
