// corvane locate [--id ID] PATH: a locked item found again is put back in the list. It takes the
// place of the listed item that was lost (the one with --id, or the lost one of the same name);
// a locked item nobody lists any more is listed anew.
#include <sys/stat.h>

#include <filesystem>

#include "Arguments.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "Engine/ItemName.h"
#include "Records/Paths.h"
#include "UsageError.h"

namespace corvane::cli {

int runLocate(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
              std::ostream&) {
    Arguments arguments = Arguments::parse(words, {"--id"});
    std::optional<Uuid> wantedId;
    std::vector<std::string> operands = arguments.operands;
    if (arguments.has("--id")) {
        if (operands.size() != 2 || !(wantedId = Uuid::parse(operands.front())))
            throw UsageError("locate --id takes an item's id and the path of its locked item");
        operands.erase(operands.begin());
    }
    if (operands.size() != 1) throw UsageError("locate takes the path of one locked item");
    std::string path = standardizedPath(std::filesystem::absolute(operands.front()).string());
    std::string name = itemName(path);
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        itemName(path) == lastPathComponent(path) ||
        lstat((path + "/gocryptfs.conf").c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        throw CommandFailure(context.forError(path) + " is not a locked item.");

    Locker& locker = context.locker();
    if (auto listed = locker.index.item(path)) {
        out << context.forOutput(listed->displayName) << " is already listed.\n";
        return 0;
    }
    std::vector<LockedItem> lost;
    for (const auto& item : locker.index.load())
        if (wantedId ? item.id == *wantedId : !ItemIndex::locate(item) && item.displayName == name)
            lost.push_back(item);
    if (wantedId && lost.empty())
        throw CommandFailure("Corvane does not list an item with the id " + wantedId->string() +
                             ".");
    if (lost.size() > 1)
        throw CommandFailure("Several lost items are called " + context.forError(name) +
                             ". Choose one with --id (see corvane list --json).");

    LockedItem item;
    if (!lost.empty()) {
        item = ItemIndex::refreshed(lost.front(), path);
    } else {
        // Nothing says which password generation it uses: it opens with every password the record
        // keeps, whichever it is.
        item.id = Uuid::random();
        item.displayName = name;
        item.kind = LockedItem::Kind::folder;
        item.createdAt = DateFormat::roundedToSecond(std::chrono::system_clock::now());
        if (auto secret = context.store().load()) item.passwordGeneration = secret->generation;
        item = ItemIndex::refreshed(item, path);
    }
    locker.index.upsert(item);
    out << context.forOutput(item.displayName) << " is listed again.\n";
    return 0;
}

}  // namespace corvane::cli
