#include "PrivateBus.h"

#include <gio/gio.h>

#include <thread>

namespace corvane::testing {

PrivateBus::PrivateBus()
    : daemon_({"dbus-daemon", "--config-file=" CORVANE_TEST_DATA "/private-bus.conf",
               "--address=unix:dir=" + folder_.path(), "--nofork", "--print-address"},
              errorLog()),
      address_(daemon_.readLine()) {}

std::string PrivateBus::errorLog() const {
    return folder_ / "daemons.log";
}

bool PrivateBus::waitForName(const std::string& name, std::chrono::milliseconds timeout) const {
    GError* error = nullptr;
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!bus) {
        g_error_free(error);
        return false;
    }
    bool owned = false;
    for (auto deadline = std::chrono::steady_clock::now() + timeout;
         !owned && std::chrono::steady_clock::now() < deadline;) {
        GVariant* reply = g_dbus_connection_call_sync(
            bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "NameHasOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(b)"),
            G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr);
        if (reply) {
            gboolean hasOwner = FALSE;
            g_variant_get(reply, "(b)", &hasOwner);
            g_variant_unref(reply);
            owned = hasOwner;
        }
        if (!owned) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    return owned;
}

}  // namespace corvane::testing
