// The password of every command that needs one: the record in the keyring, a fingerprint or the
// typed password proving that the user knows it (five tries), and the candidates an existing item
// is opened with, newest generation first, before the user is asked for the one it was locked
// with.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "FingerprintReader.h"
#include "PasswordStore.h"
#include "Prompter.h"
#include "Records/CorvaneError.h"
#include "Records/UserSettings.h"

namespace corvane::cli {

class PasswordGate {
public:
    static constexpr int attempts = 5;
    static constexpr std::string_view kKeyringLocked =
        "Your desktop keyring is locked, so nothing was changed. Unlock it (log in again, or open "
        "Passwords and Keys), then try again.";

    PasswordGate(const PasswordStore& store, const FingerprintReader& reader,
                 const UserSettings& settings, Prompter& prompter)
        : store_(store), reader_(reader), settings_(settings), prompter_(prompter) {}

    // The stored record, or nothing when there is none. A keyring that cannot be reached, is
    // locked, or holds a record that does not decode is never taken for "no record": each throws
    // CommandFailure saying what to do.
    std::optional<StoredSecret> record() const;
    // The same, and no record throws CommandFailure: setup comes first.
    StoredSecret requireRecord() const;

    // The password after the user proved knowing it; nothing when they gave up. With
    // --password-stdin a wrong first line throws CommandFailure instead of asking again.
    std::optional<SecretText> verifiedPassword(const std::string& reason);

    // Runs `body` with each password the item may use: the record's candidates (or `typed` when
    // there is no record), then what the user types for it. `beforeAsking` runs before the first
    // question (the caller lets go of what it holds while the user thinks). Nothing when the user
    // gave up; other failures are thrown as they come.
    template <class Result>
    std::optional<Result> withItemPassword(const SecretText& typed,
                                           const std::function<Result(const std::string&)>& body,
                                           const std::function<void()>& beforeAsking) {
        std::optional<Result> result;
        eachItemPassword(
            typed, [&](const std::string& password) { result.emplace(body(password)); },
            beforeAsking);
        return result;
    }

private:
    // Throws what `attempt` throws unless it is a wrong password; stops at the first success.
    void eachItemPassword(const SecretText& typed,
                          const std::function<void(const std::string&)>& attempt,
                          const std::function<void()>& beforeAsking);
    bool fingerprintVerified();

    const PasswordStore& store_;
    const FingerprintReader& reader_;
    const UserSettings& settings_;
    Prompter& prompter_;
};

}  // namespace corvane::cli
