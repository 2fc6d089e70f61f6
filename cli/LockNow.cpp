// corvane lock-now PATH... | --all: closes open items, then makes the desktop forget the previews
// and recent entries made while they were open. A path names an item by its locked item, its mount
// point or the contents shown there.
#include <set>

#include "Arguments.h"
#include "Commands.h"
#include "FailureMessage.h"
#include "FileSystem/FileWalk.h"
#include "FileSystem/ThumbnailScrubber.h"
#include "Records/Paths.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

std::optional<OpenItem> openItemAt(const std::string& path, const std::vector<OpenItem>& open) {
    std::string wanted = canonicalPath(path);
    for (const auto& item : open)
        for (const auto& place : {item.lockedURL, item.mountPoint, item.contentURL()})
            if (canonicalPath(place) == wanted) return item;
    return std::nullopt;
}

}  // namespace

int runLockNow(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
               std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {"--all", "--force"});
    bool all = arguments.has("--all");
    if (all && !arguments.operands.empty()) throw UsageError("lock-now --all takes no paths");
    if (!all && arguments.operands.empty())
        throw UsageError("lock-now needs the path of an open item, or --all");
    Locker& locker = context.locker();
    std::vector<OpenItem> open = locker.openItems();

    std::vector<OpenItem> chosen;
    std::set<Uuid> chosenIds;
    bool failed = false;
    if (all) chosen = open;
    for (const auto& path : arguments.operands) {
        std::optional<OpenItem> item = openItemAt(path, open);
        if (!item) {
            err << context.forError(lastPathComponent(standardizedPath(path))) << " is not open.\n";
            failed = true;
        } else if (chosenIds.insert(item->id).second) {
            chosen.push_back(*item);
        }
    }

    for (const auto& item : chosen) {
        try {
            // Closed first; what was shown while it was open is found by where it was.
            locker.relock(item, arguments.has("--force"));
            ThumbnailScrubber::forgetBelow(item.contentURL());
            out << context.forOutput(item.lockedURL) << '\n' << std::flush;
        } catch (...) {
            if (chosen.size() == 1 && !failed) throw;
            err << "Could not lock " << context.forError(item.name) << ": "
                << failureMessage(std::current_exception()) << '\n';
            failed = true;
        }
    }
    return failed ? 1 : 0;
}

}  // namespace corvane::cli
