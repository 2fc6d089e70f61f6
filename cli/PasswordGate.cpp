#include "PasswordGate.h"

#include "CommandFailure.h"

namespace corvane::cli {

namespace {

const std::string kWrongPassword = "That password did not work.";

}  // namespace

std::optional<StoredSecret> PasswordGate::record() const {
    auto reading = store_.read();
    switch (reading.state) {
        case PasswordStore::State::noService:
            throw CommandFailure(PasswordStore::unavailableReason().value_or(
                "Corvane could not reach your desktop keyring. Try again in a moment."));
        case PasswordStore::State::locked: throw CommandFailure(std::string(kKeyringLocked));
        case PasswordStore::State::noRecord: return std::nullopt;
        case PasswordStore::State::record: break;
    }
    if (!reading.secret)
        throw CommandFailure(
            "Corvane's password record in your keyring cannot be read, so nothing was changed.");
    return reading.secret;
}

StoredSecret PasswordGate::requireRecord() const {
    auto secret = record();
    if (!secret) throw CommandFailure("Corvane has no password yet. Run corvane setup first.");
    return std::move(*secret);
}

bool PasswordGate::fingerprintVerified() {
    return settings_.touchIDEnabled() && prompter_.onTerminal() && reader_.available() &&
           prompter_.fingerprint(reader_);
}

std::optional<SecretText> PasswordGate::verifiedPassword(const std::string& reason) {
    auto secret = record();
    if (!secret) return prompter_.password("Enter the password for this item", "");
    if (fingerprintVerified()) return SecretText(secret->password);
    std::string message = "Corvane needs your password to " + reason;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        auto typed = prompter_.password("Enter your Corvane password", message);
        if (!typed) return std::nullopt;
        if (*typed == secret->password) return typed;
        if (prompter_.fromInput()) throw CommandFailure(kWrongPassword);
        message = "That password did not work. Try again.";
    }
    return std::nullopt;
}

void PasswordGate::eachItemPassword(const SecretText& typed,
                                    const std::function<void(const std::string&)>& attempt,
                                    const std::function<void()>& beforeAsking) {
    auto secret = record();
    std::vector<std::string> candidates =
        secret ? secret->openCandidates() : std::vector<std::string>{typed.text()};
    auto wipeCandidates = [&] {
        for (auto& candidate : candidates) explicit_bzero(candidate.data(), candidate.size());
    };
    for (const auto& candidate : candidates) {
        try {
            attempt(candidate);
            wipeCandidates();
            return;
        } catch (...) {
            if (!CorvaneError::is(std::current_exception(), CorvaneError::Case::wrongPassword)) {
                wipeCandidates();
                throw;
            }
        }
    }
    wipeCandidates();
    beforeAsking();
    for (;;) {
        auto own = prompter_.password("This item uses a different password",
                                      "Enter the password it was locked with.");
        if (!own) {
            // A script that gave no second line gets the engine's own answer.
            if (prompter_.fromInput()) throw CorvaneError::wrongPassword();
            return;
        }
        try {
            attempt(own->text());
            return;
        } catch (...) {
            if (!CorvaneError::is(std::current_exception(), CorvaneError::Case::wrongPassword) ||
                prompter_.fromInput())
                throw;
        }
    }
}

}  // namespace corvane::cli
