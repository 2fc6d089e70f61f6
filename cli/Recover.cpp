// corvane recover [--json]: settles interrupted work on its own and says what it did, as counts
// and as the notice the user would otherwise see before another command's output.
#include <nlohmann/json.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "UsageError.h"

namespace corvane::cli {

int runRecover(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
               std::ostream&) {
    Arguments arguments = Arguments::parse(words, {"--json"});
    if (!arguments.operands.empty()) throw UsageError("recover takes no paths");
    context.locker(false);
    const RecoveryReport& report = context.recovery();
    const std::pair<const char*, std::int64_t> counts[] = {
        {"finishedLocks", report.finishedLocks},
        {"discardedLocks", report.discardedLocks},
        {"finishedRestores", report.finishedRestores},
        {"discardedRestores", report.discardedRestores},
        {"detachedStale", report.detachedStale},
        {"keptChangedOriginals", report.keptChangedOriginals},
        {"keptForLater", report.keptForLater},
    };
    auto notice = report.notice();

    if (arguments.has("--json")) {
        nlohmann::ordered_json json;
        for (const auto& [name, count] : counts) json[name] = count;
        json["indexWasDamaged"] = report.indexWasDamaged;
        json["journalWasDamaged"] = report.journalWasDamaged;
        json["notice"] =
            notice ? nlohmann::ordered_json{{"title", notice->title}, {"body", notice->body}}
                   : nlohmann::ordered_json(nullptr);
        out << json.dump(2) << '\n';
        return 0;
    }
    out << (notice ? notice->title + "\n" + notice->body + "\n" : "Nothing was interrupted.\n");
    for (const auto& [name, count] : counts)
        if (count > 0) out << name << ": " << count << '\n';
    return 0;
}

}  // namespace corvane::cli
