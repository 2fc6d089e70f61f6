#include "PasswordSource.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "CommandFailure.h"
#include "Records/CorvaneError.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

// Turns echo off for as long as it lives; the previous settings come back on every way out.
class EchoOff {
public:
    EchoOff() {
        saved_ = tcgetattr(STDIN_FILENO, &settings_) == 0;
        if (!saved_) return;
        termios quiet = settings_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    ~EchoOff() {
        if (saved_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &settings_);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    termios settings_{};
    bool saved_ = false;
};

}  // namespace

std::optional<std::string> PasswordSource::firstLine(std::istream& in) {
    std::string line;
    if (!std::getline(in, line) && line.empty()) return std::nullopt;
    if (line.ends_with('\r')) line.pop_back();
    return line;
}

std::string PasswordSource::read(std::istream& in, std::ostream& err) const {
    std::optional<std::string> password;
    if (fromInput_) {
        password = firstLine(in);
        if (!password) throw CommandFailure("corvane: standard input ended before a password");
    } else if (inputIsTerminal_) {
        password = prompt(err);
    } else {
        throw UsageError("a password is needed: type it at a terminal or pass --password-stdin");
    }
    if (password->empty()) throw CommandFailure("corvane: the password is empty");
    return *password;
}

std::string PasswordSource::prompt(std::ostream& err) const {
    err << "Password: " << std::flush;
    std::string password;
    {
        EchoOff echoOff;
        // Ctrl-C reaches the signal thread, not this read; waking up now and then lets it count.
        for (;;) {
            if (cancel_.isCancelled()) {
                err << '\n';
                throw CorvaneError::cancelled();
            }
            pollfd input{STDIN_FILENO, POLLIN, 0};
            int ready = poll(&input, 1, 100);
            if (ready < 0 && errno != EINTR)
                throw std::system_error(errno, std::generic_category(), "poll");
            if (ready <= 0) continue;
            char byte = 0;
            ssize_t count = ::read(STDIN_FILENO, &byte, 1);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) throw std::system_error(errno, std::generic_category(), "read");
            if (count == 0 || byte == '\n') break;
            password += byte;
        }
    }
    err << '\n';
    return password;
}

}  // namespace corvane::cli
