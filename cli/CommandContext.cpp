#include "CommandContext.h"

#include <system_error>

#include "CommandFailure.h"
#include "Records/AppPaths.h"
#include "FileSystem/GocryptfsTool.h"
#include "Records/IdlePolicy.h"
#include "Records/PasswordRules.h"
#include "Records/Paths.h"
#include "Records/SharedState.h"
#include "TerminalText.h"

namespace corvane::cli {

Locker& CommandContext::locker(bool announce) {
    if (locker_) return *locker_;
    std::string support = AppPaths::support();
    try {
        supportLock_ = SupportLock::acquire(support);
    } catch (const std::runtime_error& error) {
        throw CommandFailure(error.what());
    }
    if (!supportLock_)
        throw CommandFailure("Another Corvane is working on " + forError(support) +
                             ". Wait for it to finish, then try again.");
    // An item opened here stays open after the command ends: it closes itself once unused for
    // the inactivity limit, whether or not the application runs to lock it.
    auto tool = std::make_shared<GocryptfsTool>();
    tool->setIdleLimit(IdlePolicy::unusedLimit(userSettings_.idleMinutes()));
    locker_ = std::make_unique<Locker>(support, AppPaths::home(), settings_.applicationLocation,
                                       std::move(tool));
    // Whatever an interrupted command left is finished or undone before anything else runs.
    RecoveryReport report = locker_->recover();
    if (!recovered_) recovery_ = report;
    recovered_ = true;
    if (auto notice = report.notice(); notice && announce)
        notices_ << notice->title << "\n" << notice->body << "\n";
    finishPasswordMigration(*locker_, false);
    return *locker_;
}

void CommandContext::finish() {
    if (!locker_) return;
    if (migrationWaitsForOpenItems_) finishPasswordMigration(*locker_, true);
    publishOpenItems();
}

void CommandContext::publishOpenItems() {
    // As the application does: the file manager's menu offers Unlock or Lock Now from this.
    auto path = SharedState::defaultURL();
    if (!locker_ || !path) return;
    try {
        SharedState state;
        for (const auto& open : locker_->openItems())
            state.unlockedPaths.push_back(canonicalPath(open.lockedURL));
        state.bootTime = SharedState::currentBootTime();
        state.write(*path);
    } catch (const std::exception&) {
        // The menu may offer the wrong entry until the next command; the command's work stands.
    }
}

void CommandContext::letGo() {
    publishOpenItems();
    locker_.reset();
    supportLock_.reset();
}

// Items a password change could not reach then are moved as soon as they can be: every command
// that opens the records tries again.
void CommandContext::finishPasswordMigration(Locker& locker, bool last) {
    migrationWaitsForOpenItems_ = false;
    try {
        if (locker.index.load().empty()) return;
        auto secret = store_.load();
        if (!secret) return;
        if (locker.itemsStillMigrating(secret->generation).empty()) {
            if (secret->previous) store_.save(secret->migrated());
            return;
        }
        if (!locker.openItems().empty()) {
            // Said only if still true once the command (lock-now, say) has run.
            if (last)
                notices_ << "Lock every unlocked item to finish updating your password.\n";
            else
                migrationWaitsForOpenItems_ = true;
            return;
        }
        std::map<Uuid, CorvaneError> failures = locker.finishMigration(*secret);
        if (failures.empty()) {
            if (secret->previous) store_.save(secret->migrated());
            return;
        }
        std::vector<std::string> names;
        for (const auto& item : locker.index.load())
            if (failures.contains(item.id)) names.push_back(forError(item.displayName));
        notices_ << PasswordRules::migrationFailureMessage(names, failures.size()) << '\n';
    } catch (const std::exception& error) {
        // The command the user asked for still runs; the migration waits for the next one.
        notices_ << "Corvane could not finish updating your password: " << forError(error.what())
                 << "\n";
    }
}

std::string CommandContext::forOutput(const std::string& text) const {
    return settings_.outputIsTerminal ? escapedControls(text) : text;
}

std::string CommandContext::forError(const std::string& text) const {
    return settings_.errorIsTerminal ? escapedControls(text) : text;
}

}  // namespace corvane::cli
