// corvane remove-lock PATH: turns a locked item back into normal files beside it and prints where
// they are.
#include <algorithm>
#include <cctype>

#include "Arguments.h"
#include "Commands.h"
#include "ProgressReporter.h"
#include "Records/Paths.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

// The name the item will have again: the locked item's name without its extension.
std::string restoredName(const std::string& path) {
    std::string name = lastPathComponent(standardizedPath(path));
    constexpr std::string_view extension = ".corvlock";
    std::string lowered = name;
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (lowered.size() > extension.size() && lowered.ends_with(extension))
        name.resize(name.size() - extension.size());
    return name;
}

}  // namespace

int runRemoveLock(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
                  std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {});
    if (arguments.operands.size() != 1)
        throw UsageError("remove-lock takes the path of one locked item");
    const std::string& path = arguments.operands.front();
    Locker& locker = context.locker();
    std::string password = context.password(in, err);

    ProgressReporter progress(err, context.errorIsTerminal(), restoredName(path));
    std::string restored =
        locker.removeLock(path, password, &context.cancel(), progress.callback());
    progress.finish();
    out << restored << '\n';
    return 0;
}

}  // namespace corvane::cli
