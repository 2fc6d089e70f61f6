// A private system bus with a stand-in fingerprint service on it that acts out `scenario`: match,
// no-match, no-reader, no-fingers, silent (never reports) or vanish (leaves the bus once
// verifying). The constructor starts both and points DBUS_SYSTEM_BUS_ADDRESS at the bus; the
// destructor stops them and restores the variable. Children inherit the variable; `address()`
// is for those given their own environment. Construct and destroy on the main thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PrivateBus.h"

namespace corvane::testing {

class PrivateSystemBus {
public:
    // Throws std::runtime_error when the service does not come up.
    explicit PrivateSystemBus(const std::string& scenario);
    ~PrivateSystemBus();
    PrivateSystemBus(const PrivateSystemBus&) = delete;
    PrivateSystemBus& operator=(const PrivateSystemBus&) = delete;

    const std::string& address() const { return bus_.address(); }

    // The calls the service has answered so far, in order, each with its argument:
    // "GetDefaultDevice()", "Claim()", "VerifyStart(any)", "VerifyStop()", "Release()", ...
    std::vector<std::string> calls() const;

private:
    PrivateBus bus_;
    std::unique_ptr<DaemonProcess> service_;
    std::optional<std::string> previousAddress_;
};

}  // namespace corvane::testing
