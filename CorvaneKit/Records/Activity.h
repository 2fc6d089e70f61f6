// What the application is busy with, oldest first, and whether it is quitting. Owned by the
// application controller on its main thread; the sentences it builds refuse quitting or a password
// change while work runs.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Records/Uuid.h"

namespace corvane {

struct Activity {
    std::vector<std::pair<Uuid, std::string>> running;
    bool isQuitting = false;

    Uuid begin(std::string description);
    void end(const Uuid& id);

    bool isIdle() const { return running.empty(); }
    std::vector<std::string> descriptions() const;

    bool acceptsNewWork() const { return !isQuitting; }
    void beginQuitting() { isQuitting = true; }
    void cancelQuitting() { isQuitting = false; }

    // Absent when a password change may start; running work is named before quitting.
    std::optional<std::string> passwordChangeRefusal() const;

    static const std::string quittingRefusal;
    static std::string passwordChangeRefusal(const std::vector<std::string>& descriptions);
    static std::string quitQuestion(const std::vector<std::string>& descriptions);
};

}  // namespace corvane
