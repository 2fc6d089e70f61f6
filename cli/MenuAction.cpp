// corvane menu-action [--offers] ACTION PATH...: what the Nemo, Thunar and Dolphin menus run,
// since they pass paths, not URLs. Delivers ACTION's command for the paths through open-url, or
// with --offers only answers (by its status) whether `corvane menu` offers that entry for them.
// Runs while the application holds the support directory: no lock, no keyring.
#include <algorithm>

#include "Arguments.h"
#include "Commands.h"
#include "MenuSelection.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

bool offers(CorvaneCommand::Kind kind, const std::vector<std::string>& selection) {
    auto entries = MenuSelection::entries(selection);
    return std::any_of(entries.begin(), entries.end(), [&](const FileManagerMenuEntry& entry) {
        return entry.command.kind == kind;
    });
}

}  // namespace

int runMenuAction(CommandContext& context, const Words& words, std::istream& in, std::ostream& out,
                  std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {"--offers"});
    if (arguments.operands.size() < 2)
        throw UsageError("menu-action takes an action and the selected paths");
    const auto& hosts = CorvaneCommand::hosts;
    auto host = std::find(hosts.begin(), hosts.end(), arguments.operands.front());
    if (host == hosts.end())
        throw UsageError("unknown menu action " + context.forError(arguments.operands.front()));
    auto kind = CorvaneCommand::Kind(host - hosts.begin());
    auto selection =
        MenuSelection::absolute({arguments.operands.begin() + 1, arguments.operands.end()});

    if (arguments.has("--offers")) return offers(kind, selection) ? 0 : 1;

    // A menu that cannot tell items apart may hand several to an action for one item: each gets
    // its own command, and the application answers each.
    std::vector<CorvaneCommand> commands;
    if (kind == CorvaneCommand::Kind::lock || kind == CorvaneCommand::Kind::lockNow)
        commands.push_back({kind, selection});
    else
        for (const auto& path : selection) commands.push_back({kind, {path}});
    for (const auto& command : commands)
        if (int status = runOpenUrl(context, {command.url()}, in, out, err); status != 0)
            return status;
    return 0;
}

}  // namespace corvane::cli
