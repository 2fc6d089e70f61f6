// corvane unlock PATH: opens a locked item at its private mount point and prints where its
// contents are.
#include "Arguments.h"
#include "Commands.h"
#include "UsageError.h"

namespace corvane::cli {

int runUnlock(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
              std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {});
    if (arguments.operands.size() != 1)
        throw UsageError("unlock takes the path of one locked item");
    Locker& locker = context.locker();
    OpenItem item = locker.unlock(arguments.operands.front(), context.password(in, err));
    out << item.contentURL() << '\n';
    return 0;
}

}  // namespace corvane::cli
