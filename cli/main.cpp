// The corvane program: the command line of CommandLine on the process's own streams, with
// Ctrl-C turned into a clean cancel.
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <string_view>

#include "CommandLine.h"
#include "FileSystem/OpenFiles.h"
#include "SignalWatcher.h"

namespace {

// A command that may hold a password keeps it out of core dumps, where any crash would write
// it to disk. The file manager's commands hold none and stay inspectable: the application
// tells its own `corvane` from another program by reading this process's executable.
void keepPasswordsOutOfCoreDumps(int argc, char** argv) {
    const std::string_view inspectable[] = {"open-url", "menu", "menu-action", "integrate"};
    for (int i = 1; i < argc; ++i) {
        std::string_view word = argv[i];
        if (word.starts_with("--")) continue;
        if (std::find(std::begin(inspectable), std::end(inspectable), word) !=
            std::end(inspectable))
            return;
        break;
    }
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace corvane;
    keepPasswordsOutOfCoreDumps(argc, argv);
    cli::SignalWatcher::blockSignals();
    CancelToken cancel;
    cli::SignalWatcher watcher(cancel);

    cli::CommandContext::Settings settings;
    settings.inputIsTerminal = isatty(STDIN_FILENO) == 1;
    settings.outputIsTerminal = isatty(STDOUT_FILENO) == 1;
    settings.errorIsTerminal = isatty(STDERR_FILENO) == 1;
    settings.applicationLocation = OpenFiles::executablePath(getpid());
    int status = cli::CommandLine::run({argv + 1, argv + argc}, std::move(settings), cancel,
                                       std::cin, std::cout, std::cerr);
    std::cout.flush();
    return status;
}
