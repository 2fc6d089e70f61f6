// What every command works with: the engine, built on first use while the support directory's
// lock is held and after interrupted work was settled; the keyring, the user's settings and the
// fingerprint reader behind the password gate; the prompter; the user's Cancel; and how to show
// a name on this terminal. One per command run, on the main thread.
#pragma once

#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "Engine/Locker.h"
#include "FileSystem/CancelToken.h"
#include "FingerprintReader.h"
#include "PasswordGate.h"
#include "PasswordStore.h"
#include "Prompter.h"
#include "Records/SupportLock.h"
#include "Records/UserSettings.h"

namespace corvane::cli {

class CommandContext {
public:
    struct Settings {
        bool passwordFromInput = false;  // --password-stdin
        bool inputIsTerminal = false;
        bool outputIsTerminal = false;
        bool errorIsTerminal = false;
        std::optional<std::string> applicationLocation;  // the running program
    };

    // Questions and what recovery tells the user go to `err` (standard error), before any output.
    CommandContext(Settings settings, CancelToken& cancel, std::istream& in, std::ostream& err)
        : settings_(std::move(settings)),
          cancel_(cancel),
          notices_(err),
          prompter_(settings_.passwordFromInput, settings_.inputIsTerminal, cancel, in, err),
          gate_(store_, reader_, userSettings_, prompter_) {}

    // Throws CommandFailure when another process is working on the support directory. The first
    // call after construction or letGo() settles interrupted work and finishes a pending password
    // migration; when `announce`, it says what it did.
    Locker& locker(bool announce = true);
    // Lets go of the support directory (another command may run meanwhile), for as long as the
    // user is asked something; the next locker() takes it again.
    void letGo();
    // After the command, while the support directory is still held: a password update that open
    // items held up is finished now that they may be closed, or its notice given, and the file
    // manager's menu learns what is open. Never throws.
    void finish();
    // What the first recovery did.
    const RecoveryReport& recovery() const { return recovery_; }

    Prompter& prompter() { return prompter_; }
    PasswordGate& passwords() { return gate_; }
    const PasswordStore& store() const { return store_; }
    const UserSettings& userSettings() const { return userSettings_; }
    const FingerprintReader& fingerprintReader() const { return reader_; }
    CancelToken& cancel() const { return cancel_; }
    bool errorIsTerminal() const { return settings_.errorIsTerminal; }

    // A name or path as it may be printed on standard output or standard error: on a terminal,
    // control characters are shown escaped, so no file name can move the cursor or change colours.
    std::string forOutput(const std::string& text) const;
    std::string forError(const std::string& text) const;

private:
    // `last`: after the command, when open items that hold it up are worth a notice.
    void finishPasswordMigration(Locker& locker, bool last);
    void publishOpenItems();

    Settings settings_;
    CancelToken& cancel_;
    std::ostream& notices_;
    PasswordStore store_;
    UserSettings userSettings_;
    FingerprintReader reader_;
    Prompter prompter_;
    PasswordGate gate_;
    RecoveryReport recovery_;
    bool recovered_ = false;
    bool migrationWaitsForOpenItems_ = false;
    // Declared before the engine, so that the engine is gone before the lock is let go.
    std::unique_ptr<SupportLock> supportLock_;
    std::unique_ptr<Locker> locker_;
};

}  // namespace corvane::cli
