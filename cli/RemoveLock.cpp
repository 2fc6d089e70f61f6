// corvane remove-lock [--yes] PATH: turns a locked item back into normal files beside it, after
// the user confirmed and proved knowing the password, and prints where they are.
#include "Arguments.h"
#include "Commands.h"
#include "Engine/ItemName.h"
#include "ProgressReporter.h"
#include "UsageError.h"

namespace corvane::cli {

int runRemoveLock(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
                  std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {"--yes"});
    if (arguments.operands.size() != 1)
        throw UsageError("remove-lock takes the path of one locked item");
    const std::string& path = arguments.operands.front();
    std::string name = itemName(path);
    std::string shown = context.forError(name);
    if (!context.prompter().confirm("Remove the lock from " + shown + "?\n" + shown +
                                        " turns back into normal files that anyone using this "
                                        "computer can open.",
                                    arguments.has("--yes")))
        return 1;
    auto password = context.passwords().verifiedPassword("remove the lock from " + name);
    if (!password) return 1;

    ProgressReporter progress(err, context.errorIsTerminal(), shown);
    auto restored = context.passwords().withItemPassword<std::string>(
        *password,
        [&](const std::string& each) {
            return context.locker().removeLock(path, each, &context.cancel(), progress.callback());
        },
        [&] { context.letGo(); });
    if (!restored) return 1;
    progress.finish();
    out << context.forOutput(*restored) << '\n';
    return 0;
}

}  // namespace corvane::cli
