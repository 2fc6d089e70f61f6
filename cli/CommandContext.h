// What every command works with: the engine, built on first use while the support directory's
// lock is held (until the command ends) and after interrupted work was settled, the password
// source, the user's Cancel, and whether standard error is a terminal. One per command run, on
// the main thread.
#pragma once

#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "Engine/Locker.h"
#include "FileSystem/CancelToken.h"
#include "PasswordSource.h"
#include "Records/SupportLock.h"

namespace corvane::cli {

class CommandContext {
public:
    struct Settings {
        bool passwordFromInput = false;  // --password-stdin
        bool inputIsTerminal = false;
        bool errorIsTerminal = false;
        std::optional<std::string> applicationLocation;  // the running program
    };

    // What recovery tells the user goes to `notices` (standard error), before any output.
    CommandContext(Settings settings, CancelToken& cancel, std::ostream& notices)
        : settings_(std::move(settings)),
          cancel_(cancel),
          notices_(notices),
          passwords_(settings_.passwordFromInput, settings_.inputIsTerminal, cancel) {}

    // Throws CommandFailure when another process is working on the support directory. The first
    // call settles interrupted work and, when `announce`, prints the recovery notice.
    Locker& locker(bool announce = true);
    // What that first call's recovery did.
    const RecoveryReport& recovery() const { return recovery_; }

    std::string password(std::istream& in, std::ostream& err) const {
        return passwords_.read(in, err);
    }
    CancelToken& cancel() const { return cancel_; }
    bool errorIsTerminal() const { return settings_.errorIsTerminal; }

private:
    Settings settings_;
    CancelToken& cancel_;
    std::ostream& notices_;
    PasswordSource passwords_;
    RecoveryReport recovery_;
    // Declared before the engine, so that the engine is gone before the lock is let go.
    std::unique_ptr<SupportLock> supportLock_;
    std::unique_ptr<Locker> locker_;
};

}  // namespace corvane::cli
