// A Secret Service of a test's own: a private session bus and gnome-keyring-daemon with an
// unlocked login keyring as the default collection, both living in a temporary home so the user's
// own keyring is never touched. The constructor starts both (about a second: share one per suite
// from SetUpTestSuite) and points DBUS_SESSION_BUS_ADDRESS at the bus; the destructor stops them
// and restores the variable. Children inherit the variable; `address()` is for those given their
// own environment. Construct and destroy on the main thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "PrivateBus.h"

namespace corvane::testing {

class PrivateKeyring {
public:
    PrivateKeyring();  // throws std::runtime_error when the keyring does not come up
    ~PrivateKeyring();
    PrivateKeyring(const PrivateKeyring&) = delete;
    PrivateKeyring& operator=(const PrivateKeyring&) = delete;

    const std::string& address() const { return bus_.address(); }

private:
    PrivateBus bus_;
    std::unique_ptr<DaemonProcess> keyring_;
    std::optional<std::string> previousAddress_;
};

}  // namespace corvane::testing
