#include "Prompter.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Records/CorvaneError.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

// Turns echo off for as long as it lives, before anything is shown, and keeps what was typed
// ahead; the previous settings come back on every way out.
class EchoOff {
public:
    explicit EchoOff(bool active) {
        saved_ = active && tcgetattr(STDIN_FILENO, &settings_) == 0;
        if (!saved_) return;
        termios quiet = settings_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    ~EchoOff() {
        if (saved_) tcsetattr(STDIN_FILENO, TCSANOW, &settings_);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    termios settings_{};
    bool saved_ = false;
};

// Whether a byte can be read from standard input within `milliseconds`.
bool inputReady(int milliseconds) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    int ready = poll(&input, 1, milliseconds);
    if (ready < 0 && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "poll");
    return ready > 0;
}

}  // namespace

SecretText Prompter::terminalLine(bool secret, bool* ended) {
    EchoOff echoOff(secret);
    SecretText line;
    *ended = false;
    // Ctrl-C reaches the signal thread, not this read; waking up now and then lets it count.
    for (;;) {
        if (cancel_.isCancelled()) {
            if (secret) err_ << '\n';
            throw CorvaneError::cancelled();
        }
        if (!inputReady(100)) continue;
        char byte = 0;
        ssize_t count = ::read(STDIN_FILENO, &byte, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::system_error(errno, std::generic_category(), "read");
        if (count == 0) {
            *ended = line.text().empty();
            return line;
        }
        if (byte == '\n') return line;
        line.push(byte);
    }
}

std::optional<SecretText> Prompter::password(const std::string& title, const std::string& message,
                                             std::string_view label) {
    if (fromInput_) {
        SecretText line;
        char byte = 0;
        bool any = false;
        while (in_.get(byte) && byte != '\n') {
            any = true;
            line.push(byte);
        }
        if (!any && !in_) return std::nullopt;
        if (line.text().ends_with('\r')) line.pop();
        return line;
    }
    if (!inputIsTerminal_)
        throw UsageError("a password is needed: type it at a terminal or pass --password-stdin");
    if (!title.empty()) err_ << title << '\n';
    if (!message.empty()) err_ << message << '\n';
    EchoOff echoOff(true);
    err_ << label << std::flush;
    bool ended = false;
    SecretText line = terminalLine(true, &ended);
    if (ended) return std::nullopt;
    return line;
}

bool Prompter::confirm(const std::string& question, bool given, std::string_view option) {
    if (given) return true;
    if (!onTerminal())
        throw UsageError("this needs your answer: run it at a terminal, or add " +
                         std::string(option));
    err_ << question << " [y/N] " << std::flush;
    bool ended = false;
    SecretText answer = terminalLine(false, &ended);
    return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
}

void Prompter::say(const std::string& text) {
    if (onTerminal()) err_ << text << '\n';
}

bool Prompter::fingerprint(const FingerprintReader& reader) {
    if (!onTerminal()) return false;
    err_ << "Touch the fingerprint reader, or press Enter to type your password." << std::endl;
    bool typing = false;
    bool matched = reader.verify(FingerprintReader::defaultTimeout, [&] {
        if (cancel_.isCancelled()) return true;
        typing = inputReady(0);
        return typing;
    });
    if (typing) {
        // The Enter that chose typing is not part of the password.
        bool ended = false;
        terminalLine(false, &ended);
    }
    if (cancel_.isCancelled()) throw CorvaneError::cancelled();
    return matched;
}

}  // namespace corvane::cli
