// The one way Corvane starts an external tool: no shell and no search path, input on a pipe,
// output and errors merged in one pipe, an optional time limit and the user's Cancel. Blocks the
// calling thread until the child has exited; never call it on a GUI thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FileSystem/CancelToken.h"
#include "FileSystem/ProcessResult.h"

namespace corvane {

struct ProcessRunner {
    // Called with the child's process id on the calling thread, every `watchInterval` while the
    // child runs; the child is not reaped before the call returns, so the id cannot name another
    // process meanwhile. What it throws ends the child (SIGTERM) and then the run.
    using Watch = std::function<void(pid_t child)>;
    static constexpr std::chrono::milliseconds watchInterval{200};

    // Throws std::system_error when the child cannot be started, and CorvaneError::cancelled()
    // (after the child has exited) when `cancel` was cancelled. A non-zero status is no error here:
    // the caller says what it means. A child that ignores SIGTERM keeps the call waiting.
    // `input` is usually a password: this copy is wiped as soon as it is written, or given up.
    // The child starts in the folder open as `workingFolder`, when one is given.
    static ProcessResult run(const std::string& executablePath,
                             const std::vector<std::string>& arguments,
                             std::optional<std::string> input = std::nullopt,
                             std::optional<double> timeout = std::nullopt,
                             const CancelToken* cancel = nullptr, const Watch& watch = nullptr,
                             int workingFolder = -1);

    // `parts`, each followed by `terminator`, built in one allocation so that no partial copy of
    // a password is left behind in freed memory. Give it to run() with std::move.
    static std::string joinedInput(std::initializer_list<std::string_view> parts, char terminator);
};

}  // namespace corvane
