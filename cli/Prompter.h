// How a command asks the user: on the terminal on standard input (prompts on standard error,
// passwords with echo off), or, with --password-stdin, from the lines of standard input, where a
// script answers in advance. Nothing else is tried, so a script never hangs on a prompt nobody
// sees. One per command run.
#pragma once

#include <istream>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "FileSystem/CancelToken.h"
#include "FingerprintReader.h"
#include "SecretText.h"

namespace corvane::cli {

class Prompter {
public:
    Prompter(bool fromInput, bool inputIsTerminal, const CancelToken& cancel, std::istream& in,
             std::ostream& err)
        : fromInput_(fromInput),
          inputIsTerminal_(inputIsTerminal),
          cancel_(cancel),
          in_(in),
          err_(err) {}

    bool fromInput() const { return fromInput_; }
    bool onTerminal() const { return !fromInput_ && inputIsTerminal_; }

    // Shows the title and message (on a terminal) and reads one password: nothing when input
    // ends. Throws UsageError when there is no way to ask, CorvaneError::cancelled on Ctrl-C.
    std::optional<SecretText> password(const std::string& title, const std::string& message,
                                       std::string_view label = "Password: ");

    // A [y/N] question on the terminal; `given` (a --yes) answers it without asking. Throws
    // UsageError when it would have to ask and cannot.
    bool confirm(const std::string& question, bool given, std::string_view option = "--yes");

    // Prints a line for the user (on the terminal only: a script's answers need no questions).
    void say(const std::string& text);

    // Waits for a fingerprint while the user may press Enter to type the password instead; only
    // on a terminal. True when a finger matched.
    bool fingerprint(const FingerprintReader& reader);

private:
    // One line from the terminal on standard input, read directly so that Ctrl-C can end the
    // wait; `secret` keeps echo off.
    SecretText terminalLine(bool secret, bool* ended);

    bool fromInput_;
    bool inputIsTerminal_;
    const CancelToken& cancel_;
    std::istream& in_;
    std::ostream& err_;
};

}  // namespace corvane::cli
