// Where a command's password comes from: the first line of standard input (--password-stdin), or
// a prompt with echo off when standard input is a terminal. Nothing else is tried, so that a
// script never hangs on a prompt nobody sees.
#pragma once

#include <istream>
#include <optional>
#include <ostream>
#include <string>

#include "FileSystem/CancelToken.h"

namespace corvane::cli {

class PasswordSource {
public:
    PasswordSource(bool fromInput, bool inputIsTerminal, const CancelToken& cancel)
        : fromInput_(fromInput), inputIsTerminal_(inputIsTerminal), cancel_(cancel) {}

    // Throws UsageError when there is no way to ask, CommandFailure when no password comes, and
    // CorvaneError::cancelled when the user presses Ctrl-C at the prompt.
    std::string read(std::istream& in, std::ostream& err) const;

    // One line of `in` without its line ending ("\n" or "\r\n"); nothing at end of input.
    static std::optional<std::string> firstLine(std::istream& in);

private:
    // Reads the terminal on standard input directly, so that Ctrl-C can end the wait.
    std::string prompt(std::ostream& err) const;

    bool fromInput_;
    bool inputIsTerminal_;
    const CancelToken& cancel_;
};

}  // namespace corvane::cli
