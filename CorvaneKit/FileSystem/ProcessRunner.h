// The one way Corvane starts an external tool: no shell and no search path, input on a pipe,
// output and errors merged in one pipe, an optional time limit and the user's Cancel. Blocks the
// calling thread until the child has exited; never call it on a GUI thread.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FileSystem/CancelToken.h"
#include "FileSystem/ProcessResult.h"

namespace corvane {

struct ProcessRunner {
    // Throws std::system_error when the child cannot be started, and CorvaneError::cancelled()
    // (after the child has exited) when `cancel` was cancelled. A non-zero status is no error here:
    // the caller says what it means. A child that ignores SIGTERM keeps the call waiting.
    // `input` is usually a password: this copy is wiped as soon as it is written, or given up.
    static ProcessResult run(const std::string& executablePath,
                             const std::vector<std::string>& arguments,
                             std::optional<std::string> input = std::nullopt,
                             std::optional<double> timeout = std::nullopt,
                             const CancelToken* cancel = nullptr);

    // `parts`, each followed by `terminator`, built in one allocation so that no partial copy of
    // a password is left behind in freed memory. Give it to run() with std::move.
    static std::string joinedInput(std::initializer_list<std::string_view> parts, char terminator);
};

}  // namespace corvane
