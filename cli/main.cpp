// The corvane program: the command line of CommandLine on the process's own streams, with
// Ctrl-C turned into a clean cancel.
#include <unistd.h>

#include <iostream>

#include "CommandLine.h"
#include "FileSystem/OpenFiles.h"
#include "SignalWatcher.h"

int main(int argc, char** argv) {
    using namespace corvane;
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
