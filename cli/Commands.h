// The commands of the corvane program, one file each. Each gets the words after its name and the
// three streams, returns the exit status, and throws UsageError for words it cannot take; other
// failures of a one-item command are thrown for the dispatcher to print.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "CommandContext.h"

namespace corvane::cli {

using Words = std::vector<std::string>;

int runLock(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
            std::ostream& err);
int runUnlock(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
              std::ostream& err);
int runLockNow(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
               std::ostream& err);
int runRemoveLock(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
                  std::ostream& err);
int runList(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
            std::ostream& err);
int runRecover(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
               std::ostream& err);
int runSetup(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
             std::ostream& err);
int runPasswd(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
              std::ostream& err);
int runForget(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
              std::ostream& err);
int runLocate(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
              std::ostream& err);
int runStatus(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
              std::ostream& err);
int runConfig(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
              std::ostream& err);
int runMenu(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
            std::ostream& err);
int runOpenUrl(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
               std::ostream& err);
int runIntegrate(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
                 std::ostream& err);
int runMenuAction(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
                  std::ostream& err);

}  // namespace corvane::cli
