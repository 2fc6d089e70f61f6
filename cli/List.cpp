// corvane list [--json]: every item in the index, whether it is open, where it is and how big its
// contents were when it was locked.
#include <set>

#include <nlohmann/json.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "Records/ByteCount.h"
#include "TextTable.h"
#include "UsageError.h"

namespace corvane::cli {

int runList(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
            std::ostream&) {
    Arguments arguments = Arguments::parse(words, {"--json"});
    if (!arguments.operands.empty()) throw UsageError("list takes no paths");
    Locker& locker = context.locker();
    std::vector<LockedItem> items = locker.index.load();
    std::set<Uuid> openIds;
    for (const auto& item : locker.openItems()) openIds.insert(item.id);

    auto state = [&](const LockedItem& item) {
        return openIds.contains(item.id) ? "open" : "locked";
    };
    auto path = [](const LockedItem& item) {
        return ItemIndex::locate(item).value_or(item.lastKnownPath);
    };

    if (arguments.has("--json")) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& item : items) {
            nlohmann::ordered_json size = nullptr, originalSize = nullptr;
            if (item.contentSize) {
                size = ByteCount::file(*item.contentSize);
                originalSize = *item.contentSize;
            }
            list.push_back({{"id", item.id.string()},
                            {"name", item.displayName},
                            {"state", state(item)},
                            {"path", path(item)},
                            {"size", size},
                            {"originalSize", originalSize},
                            {"passwordGeneration", item.passwordGeneration}});
        }
        // File names are bytes; a name that is not UTF-8 must not stop the listing.
        out << list.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
        return 0;
    }

    if (items.empty()) {
        out << "No locked items.\n";
        return 0;
    }
    TextTable table;
    table.add({"NAME", "STATE", "SIZE", "PATH"});
    for (const auto& item : items)
        table.add({item.displayName, state(item),
                   item.contentSize ? ByteCount::file(*item.contentSize) : "—", path(item)});
    table.print(out);
    return 0;
}

}  // namespace corvane::cli
