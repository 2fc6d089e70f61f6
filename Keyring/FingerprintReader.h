// Fingerprint checks through fprintd on the system bus (DBUS_SYSTEM_BUS_ADDRESS picks another
// bus). A check either proves a match or says no: every failure, a timeout and a stop all read
// as "not verified", and none of them is reported.
#pragma once

#include <chrono>
#include <functional>

namespace corvane {

class FingerprintReader {
public:
    static constexpr std::chrono::seconds defaultTimeout{30};

    // A reader exists and the user has enrolled at least one finger. Never throws.
    bool available() const;

    // GetDefaultDevice, Claim, VerifyStart("any"), the VerifyStatus signal, VerifyStop, Release.
    // True only for a match. `stopRequested` is asked a few times a second; true ends the wait.
    bool verify(std::chrono::milliseconds timeout = defaultTimeout,
                const std::function<bool()>& stopRequested = {}) const;
};

}  // namespace corvane
