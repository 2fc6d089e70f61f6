#include "Engine/RecoveryReport.h"

#include <string>
#include <vector>

namespace corvane {

namespace {

// "1 item" or "n items".
std::string counted(std::int64_t n, const std::string& one, const std::string& many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

std::optional<RecoveryNotice> RecoveryReport::notice() const {
    std::vector<std::string> sentences;
    if (finishedLocks > 0)
        sentences.push_back("It finished locking " + counted(finishedLocks, "item", "items") + ".");
    if (discardedLocks == 1)
        sentences.push_back("It stopped 1 unfinished lock and left that original unchanged.");
    if (discardedLocks > 1)
        sentences.push_back("It stopped " + std::to_string(discardedLocks) +
                            " unfinished locks and left those originals unchanged.");
    if (finishedRestores > 0)
        sentences.push_back("It finished removing the lock from " +
                            counted(finishedRestores, "item", "items") + ".");
    if (discardedRestores == 1)
        sentences.push_back("It stopped 1 unfinished lock removal. That item is still locked.");
    if (discardedRestores > 1)
        sentences.push_back("It stopped " + std::to_string(discardedRestores) +
                            " unfinished lock removals. Those items are still locked.");
    if (keptChangedOriginals == 1)
        sentences.push_back(
            "1 original changed after Corvane locked it, so Corvane kept it next to the locked "
            "copy.");
    if (keptChangedOriginals > 1)
        sentences.push_back(std::to_string(keptChangedOriginals) +
                            " originals changed after Corvane locked them, so Corvane kept them "
                            "next to the locked copies.");
    if (keptForLater > 0)
        sentences.push_back("It could not finish " +
                            counted(keptForLater, "interrupted job", "interrupted jobs") +
                            " yet and will try again next time it opens.");
    if (indexWasDamaged)
        sentences.push_back(
            "Corvane's list of locked items was damaged, so it set the list aside and started a "
            "new one. Your locked items are safe and appear in the list again when you unlock "
            "them.");
    if (journalWasDamaged)
        sentences.push_back(
            "Corvane's record of unfinished work was damaged, so it set the record aside and "
            "changed nothing.");
    if (sentences.empty()) return std::nullopt;

    std::string body;
    for (const auto& sentence : sentences) body += (body.empty() ? "" : " ") + sentence;
    std::string title = "Corvane has unfinished work";
    if (indexWasDamaged || journalWasDamaged)
        title = "Corvane set a damaged file aside";
    else if (finishedLocks + discardedLocks + finishedRestores + discardedRestores +
                 keptChangedOriginals >
             0)
        title = "Corvane finished interrupted work";
    return RecoveryNotice{title, body};
}

}  // namespace corvane
