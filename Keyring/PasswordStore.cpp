#include "PasswordStore.h"

#include <cstdlib>

namespace corvane {

std::string PasswordStore::serviceFromEnvironment() {
    const char* value = std::getenv("CORVANE_KEYCHAIN_SERVICE");
    return value ? value : defaultService;
}

PasswordStore::PasswordStore(std::string service, std::string account)
    : service_(std::move(service)), account_(std::move(account)) {}

// Written with libsecret next.
std::optional<StoredSecret> PasswordStore::load() const {
    return std::nullopt;
}
void PasswordStore::save(const StoredSecret&) const {
    throw KeyringError("not written yet");
}
std::optional<std::string> PasswordStore::unavailableReason() {
    return std::nullopt;
}

}  // namespace corvane
