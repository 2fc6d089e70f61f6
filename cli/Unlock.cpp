// corvane unlock PATH: proves the user knows the password, opens the locked item at its private
// mount point with the passwords it may use, and prints where its contents are.
#include "Arguments.h"
#include "Commands.h"
#include "Engine/ItemName.h"
#include "UsageError.h"

namespace corvane::cli {

int runUnlock(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
              std::ostream&) {
    Arguments arguments = Arguments::parse(words, {});
    if (arguments.operands.size() != 1)
        throw UsageError("unlock takes the path of one locked item");
    const std::string& path = arguments.operands.front();
    auto password = context.passwords().verifiedPassword("unlock " + itemName(path));
    if (!password) return 1;
    auto item = context.passwords().withItemPassword<OpenItem>(
        *password, [&](const std::string& each) { return context.locker().unlock(path, each); },
        [&] { context.letGo(); });
    if (!item) return 1;
    out << context.forOutput(item->contentURL()) << '\n';
    return 0;
}

}  // namespace corvane::cli
