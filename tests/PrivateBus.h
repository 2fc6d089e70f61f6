// A dbus-daemon of a test's own, listening in a temporary folder, on which every connection,
// name and message is allowed and nothing is activated. The constructor starts it, the destructor
// stops it. Used by PrivateKeyring and PrivateSystemBus; one thread.
#pragma once

#include <chrono>
#include <string>

#include "DaemonProcess.h"
#include "TestSupport.h"

namespace corvane::testing {

class PrivateBus {
public:
    PrivateBus();  // throws std::runtime_error when the daemon does not start

    // For DBUS_SESSION_BUS_ADDRESS or DBUS_SYSTEM_BUS_ADDRESS.
    const std::string& address() const { return address_; }
    // A private folder beside the socket, removed with the bus.
    const TempDir& folder() const { return folder_; }
    // Where the daemons of a fixture write their standard error: "daemons.log" in the folder.
    std::string errorLog() const;

    // Whether `name` has an owner on this bus within `timeout`.
    bool waitForName(const std::string& name,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    TempDir folder_;
    DaemonProcess daemon_;
    std::string address_;
};

}  // namespace corvane::testing
