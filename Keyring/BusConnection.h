// A private connection to the session or system bus, at the address DBUS_SESSION_BUS_ADDRESS or
// DBUS_SYSTEM_BUS_ADDRESS gives, opened within a time limit. Unlike GLib's shared connection it
// belongs to the caller alone and does not end the process when the bus goes away. Internal to
// the keyring library; any thread.
#pragma once

#include <chrono>
#include <string>

#include "GLibPointer.h"

namespace corvane {

struct BusConnection {
    // Nothing when the bus cannot be reached in time; `failure`, when given, says why.
    static GLibPointer<GDBusConnection> open(GBusType bus, std::chrono::milliseconds timeout,
                                             std::string* failure = nullptr);
};

}  // namespace corvane
