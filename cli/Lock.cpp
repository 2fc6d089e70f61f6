// corvane lock PATH...: locks each item where it stands and prints where its locked item is.
#include "Arguments.h"
#include "Commands.h"
#include "FailureMessage.h"
#include "ProgressReporter.h"
#include "Records/CorvaneError.h"
#include "Records/Paths.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

// Until the keyring keeps the password and its generations, every lock uses the first one.
constexpr std::int64_t kPasswordGeneration = 1;

}  // namespace

int runLock(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
            std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {});
    if (arguments.operands.empty()) throw UsageError("lock needs the path of a file or folder");
    Locker& locker = context.locker();
    std::string password = context.password(in, err);

    bool several = arguments.operands.size() > 1;
    bool failed = false;
    for (const auto& path : arguments.operands) {
        std::string name = lastPathComponent(standardizedPath(path));
        try {
            ProgressReporter progress(err, context.errorIsTerminal(), name);
            LockedItem item = locker.lock(path, password, kPasswordGeneration, &context.cancel(),
                                          progress.callback());
            progress.finish();
            out << item.lastKnownPath << '\n' << std::flush;
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
