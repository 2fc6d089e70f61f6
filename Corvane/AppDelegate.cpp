#include "AppDelegate.h"

#include <QCoreApplication>

namespace corvane::app {

Task<bool> AppDelegate::shouldQuit() {
    Activity& activity = model_.activity();
    if (activity.isIdle()) {
        if (model_.openItems().empty()) co_return true;
        co_return co_await lockEverythingBeforeQuitting();
    }
    int answer =
        prompter_.choose(Activity::quitQuestion(activity.descriptions()),
                         "Corvane quits as soon as it is done.", {"Quit When Finished", "Cancel"});
    if (answer != 0) co_return false;
    activity.beginQuitting();
    co_await model_.waitUntilIdle();
    activity.cancelQuitting();
    co_return co_await lockEverythingBeforeQuitting();
}

Task<bool> AppDelegate::lockEverythingBeforeQuitting() {
    co_await model_.lockAll();
    if (model_.openItems().empty()) co_return true;
    int answer =
        prompter_.choose("Some items are still unlocked",
                         "They stay unlocked until you lock them or restart your computer.",
                         {"Quit Anyway", "Cancel"});
    co_return answer == 0;
}

void AppDelegate::requestQuit() {
    if (answering_) return;
    answering_ = true;
    spawn([](AppDelegate* self) -> Task<> {
        bool quit = co_await self->shouldQuit();
        self->answering_ = false;
        if (quit) QCoreApplication::quit();
    }(this));
}

Task<> AppDelegate::lockForSessionEnd() {
    for (int attempt = 0;; ++attempt) {
        auto inUse = co_await model_.relockAllQuietly();
        if (inUse.empty() || attempt == 6) co_return;
        co_await sleepFor(this, std::chrono::milliseconds(500));
    }
}

void AppDelegate::endSession() {
    if (ending_) return;
    ending_ = true;
    spawn([](AppDelegate* self) -> Task<> {
        co_await self->lockForSessionEnd();
        QCoreApplication::quit();
    }(this));
}

}  // namespace corvane::app
