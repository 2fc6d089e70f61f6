// corvane menu [--json] PATH...: the entries Corvane adds to the file manager's menu for a
// selection, each with the corvane:// URL that carries it out. Runs while the application holds
// the support directory, so it reads only the state the application shares: no lock, no keyring.
#include <nlohmann/json.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "Commands/FileManagerMenuModel.h"
#include "Records/Paths.h"
#include "Records/SharedState.h"

namespace corvane::cli {

namespace {

// Against the working folder, but otherwise as given: the URL names what the user selected.
std::string absolute(const std::string& path) {
    if (path.starts_with('/')) return path;
    std::string folder = standardizedPath(".");
    return (folder == "/" ? "" : folder) + "/" + path;
}

}  // namespace

int runMenu(CommandContext&, const Words& words, std::istream&, std::ostream& out, std::ostream&) {
    Arguments arguments = Arguments::parse(words, {"--json"});
    std::vector<std::string> selection;
    for (const auto& path : arguments.operands) selection.push_back(absolute(path));

    std::optional<std::set<std::string>> unlocked;
    if (auto state = SharedState::read(SharedState::defaultURL()))
        unlocked = state->unlockedSet(SharedState::currentBootTime());
    auto entries = FileManagerMenuModel::entries(selection, unlocked);

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
