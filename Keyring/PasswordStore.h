// The one place that touches the desktop keyring: the application password record (StoredSecret
// as JSON) kept as a Secret Service item with the attributes `service` and `account`, labelled
// "Corvane password". Every call is synchronous and talks to the session bus.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "Records/StoredSecret.h"

namespace corvane {

// A write to the keyring failed; what() is the Secret Service library's own message.
class KeyringError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class PasswordStore {
public:
    static constexpr const char* defaultService = "com.pellmoor.corvane.password";
    static constexpr const char* defaultAccount = "main";
    static constexpr const char* label = "Corvane password";

    // $CORVANE_KEYCHAIN_SERVICE when present, even empty; else defaultService.
    static std::string serviceFromEnvironment();

    explicit PasswordStore(std::string service = serviceFromEnvironment(),
                           std::string account = defaultAccount);

    const std::string& service() const { return service_; }
    const std::string& account() const { return account_; }

    // How the keyring stands for our record. A locked keyring is not an empty one: its record may
    // be there, unread, and a setup that saved over it would lose every earlier password.
    enum class State {
        noService,  // no Secret Service answers
        locked,     // the record, or the collection it would go into, is locked
        noRecord,   // unlocked, and no record of ours
        record,     // unlocked, with a record (which may not decode)
    };
    struct Reading {
        State state = State::noService;
        std::optional<StoredSecret> secret;  // only for `record`, when it decodes
    };
    // Never unlocks anything, so never waits for a prompt.
    Reading read() const;

    // The record; nothing when there is none, the keyring is locked, refused or is unreachable,
    // or the stored value does not decode.
    std::optional<StoredSecret> load() const;

    // Asks the desktop to unlock the default collection, which shows its own prompt, and waits
    // for the user's answer. True when it is unlocked afterwards. Never on the UI thread.
    bool unlock() const;

    // Replaces the stored value in place, or creates the item. Throws KeyringError.
    void save(const StoredSecret& secret) const;

    // Nothing when a Secret Service answers on the session bus; otherwise one sentence that says
    // what to start.
    static std::optional<std::string> unavailableReason();

private:
    std::string service_;
    std::string account_;
};

}  // namespace corvane
