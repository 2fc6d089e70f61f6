// corvane list [--json]: every item in the index, whether it is open, where it is, how big its
// contents were when it was locked, and whether it was lost or still waits for the current
// password.
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
    // Without the keyring no item can be said to be behind.
    std::optional<std::int64_t> generation;
    if (!items.empty())
        if (auto secret = context.store().load()) generation = secret->generation;

    struct Row {
        const LockedItem& item;
        std::optional<std::string> location;
        bool isOpen;
        bool needsPasswordUpdate;
    };
    std::vector<Row> rows;
    for (const auto& item : items)
        rows.push_back({item, ItemIndex::locate(item), openIds.contains(item.id),
                        generation && item.passwordGeneration < *generation});

    if (arguments.has("--json")) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& row : rows) {
            nlohmann::ordered_json size = nullptr, originalSize = nullptr;
            if (row.item.contentSize) {
                size = ByteCount::file(*row.item.contentSize);
                originalSize = *row.item.contentSize;
            }
            list.push_back({{"id", row.item.id.string()},
                            {"name", row.item.displayName},
                            {"state", row.isOpen ? "open" : "locked"},
                            {"path", row.location.value_or(row.item.lastKnownPath)},
                            {"found", row.location.has_value()},
                            {"needsPasswordUpdate", row.needsPasswordUpdate},
                            {"size", size},
                            {"originalSize", originalSize},
                            {"passwordGeneration", row.item.passwordGeneration}});
        }
        // File names are bytes; a name that is not UTF-8 must not stop the listing.
        out << list.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
        return 0;
    }

    if (rows.empty()) {
        out << "No locked items.\n";
        return 0;
    }
    TextTable table;
    table.add({"NAME", "STATE", "SIZE", "PATH"});
    for (const auto& row : rows) {
        std::string state = row.isOpen ? "open" : "locked";
        if (row.needsPasswordUpdate) state += ", Needs password update";
        table.add({row.item.displayName, state,
                   row.item.contentSize ? ByteCount::file(*row.item.contentSize) : "—",
                   row.location.value_or("Can't find this item")});
    }
    table.print(out);
    return 0;
}

}  // namespace corvane::cli
