// corvane menu [--json] PATH...: the entries Corvane adds to the file manager's menu for a
// selection, each with the corvane:// URL that carries it out. Runs while the application holds
// the support directory, so it reads only the state the application shares: no lock, no keyring.
#include <nlohmann/json.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "MenuSelection.h"

namespace corvane::cli {

int runMenu(CommandContext&, const Words& words, std::istream&, std::ostream& out, std::ostream&) {
    Arguments arguments = Arguments::parse(words, {"--json"});
    auto entries = MenuSelection::entries(MenuSelection::absolute(arguments.operands));

    if (arguments.has("--json")) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& entry : entries)
            list.push_back({{"title", entry.title}, {"url", entry.command.url()}});
        out << list.dump(2) << '\n';
    } else {
        for (const auto& entry : entries) out << entry.title << '\t' << entry.command.url() << '\n';
    }
    return 0;
}

}  // namespace corvane::cli
