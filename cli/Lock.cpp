// corvane lock PATH...: locks each item where it stands under the stored password and prints
// where its locked item is. It asks nothing: the password was proven when it was set.
#include "Arguments.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "FailureMessage.h"
#include "Engine/ItemName.h"
#include "ProgressReporter.h"
#include "UsageError.h"

namespace corvane::cli {

int runLock(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
            std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {});
    if (arguments.operands.empty()) throw UsageError("lock needs the path of a file or folder");
    StoredSecret secret = context.passwords().requireRecord();
    // A script that pipes a password gets it checked, so a typo never goes unnoticed.
    if (context.prompter().fromInput()) {
        auto typed = context.prompter().password("", "");
        if (!typed || !(*typed == secret.password))
            throw CommandFailure("That password did not work.");
    }
    Locker& locker = context.locker();

    bool several = arguments.operands.size() > 1;
    bool failed = false;
    for (const auto& path : arguments.operands) {
        std::string name = context.forError(itemName(path));
        try {
            ProgressReporter progress(err, context.errorIsTerminal(), name);
            LockedItem item = locker.lock(path, secret.password, secret.generation,
                                          &context.cancel(), progress.callback());
            progress.finish();
            out << context.forOutput(item.lastKnownPath) << '\n' << std::flush;
        } catch (...) {
            if (!several) throw;
            err << "Could not lock " << name << ": " << failureMessage(std::current_exception())
                << '\n';
            failed = true;
            // After Ctrl-C the user wants nothing more done.
            if (context.cancel().isCancelled()) break;
        }
    }
    return failed ? 1 : 0;
}

}  // namespace corvane::cli
