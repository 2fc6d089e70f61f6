// corvane forget [--yes] PATH|ID: takes an item off the list. Nothing on disk is touched; a
// forgotten locked item still opens, and `locate` lists it again.
#include <filesystem>

#include "Arguments.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "Records/Paths.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

// By its id, by where it is now, or by where it was last seen (a lost item has no "now").
std::optional<LockedItem> listedItem(const Locker& locker, const std::string& given) {
    std::vector<LockedItem> items = locker.index.load();
    if (auto id = Uuid::parse(given))
        for (const auto& item : items)
            if (item.id == *id) return item;
    if (auto item = locker.index.item(given)) return item;
    std::string wanted = standardizedPath(std::filesystem::absolute(given).string());
    for (const auto& item : items)
        if (standardizedPath(item.lastKnownPath) == wanted) return item;
    return std::nullopt;
}

}  // namespace

int runForget(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
              std::ostream&) {
    Arguments arguments = Arguments::parse(words, {"--yes"});
    if (arguments.operands.size() != 1)
        throw UsageError("forget takes the path or id of one listed item");
    auto item = listedItem(context.locker(), arguments.operands.front());
    if (!item)
        throw CommandFailure("Corvane does not list " +
                             context.forError(arguments.operands.front()) + ".");
    std::string name = context.forError(item->displayName);
    context.letGo();
    if (!context.prompter().confirm(
            "Forget " + name + "? Corvane stops listing it. Nothing is deleted.",
            arguments.has("--yes")))
        return 1;
    context.locker().index.remove(item->id);
    out << "Forgot " << context.forOutput(item->displayName) << ".\n";
    return 0;
}

}  // namespace corvane::cli
