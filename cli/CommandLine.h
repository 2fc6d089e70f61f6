// The corvane program without its process: reads the global options and the command word, runs
// the command and turns what it throws into a message and an exit status (0 done, 1 failed, 2
// misused). main() adds the real streams, terminals and signals; tests call run() directly.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "CommandContext.h"
#include "FileSystem/CancelToken.h"

namespace corvane::cli {

struct CommandLine {
    // `words` are the program's arguments without its name. `settings.passwordFromInput` is set
    // here from --password-stdin.
    static int run(std::vector<std::string> words, CommandContext::Settings settings,
                   CancelToken& cancel, std::istream& in, std::ostream& out, std::ostream& err);

    static const std::string usage;
};

}  // namespace corvane::cli
