#include "Records/Activity.h"

#include <algorithm>

#include "Records/CorvaneError.h"

namespace corvane {

const std::string Activity::quittingRefusal =
    "Corvane is quitting, so it cannot start anything new.";

Uuid Activity::begin(std::string description) {
    Uuid id = Uuid::random();
    running.emplace_back(id, std::move(description));
    return id;
}

void Activity::end(const Uuid& id) {
    std::erase_if(running, [&](const auto& entry) { return entry.first == id; });
}

std::vector<std::string> Activity::descriptions() const {
    std::vector<std::string> texts;
    for (const auto& entry : running) texts.push_back(entry.second);
    return texts;
}

std::optional<std::string> Activity::passwordChangeRefusal() const {
    if (!running.empty()) return passwordChangeRefusal(descriptions());
    if (isQuitting) return quittingRefusal;
    return std::nullopt;
}

std::string Activity::passwordChangeRefusal(const std::vector<std::string>& descriptions) {
    if (descriptions.empty()) return "Wait until Corvane finishes, then try again.";
    return "Wait until Corvane finishes " + CorvaneError::list(descriptions) + ", then try again.";
}

std::string Activity::quitQuestion(const std::vector<std::string>& descriptions) {
    if (descriptions.empty()) return "Corvane is still working. Quit when it finishes?";
    return "Corvane is still " + CorvaneError::list(descriptions) + ". Quit when it finishes?";
}

}  // namespace corvane
