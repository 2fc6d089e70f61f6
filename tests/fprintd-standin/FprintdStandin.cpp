// A stand-in fingerprint service for the tests: owns net.reactivated.Fprint on the system bus
// that DBUS_SYSTEM_BUS_ADDRESS names, with one device that acts out a scenario, and appends every
// call it receives, in order, to a log. Prints "ready" once it owns the name.
//
//   corvane-fprintd-standin SCENARIO LOG
//
// Scenarios: match (a retry, then a match), no-match, no-reader (no default device), no-fingers
// (nothing enrolled, so nothing to verify), silent (never reports a result), vanish (leaves the bus
// once verifying).
#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr const char* devicePath = "/net/reactivated/Fprint/Device/0";
constexpr const char* deviceInterface = "net.reactivated.Fprint.Device";

constexpr const char* introspection = R"(
<node>
  <interface name="net.reactivated.Fprint.Manager">
    <method name="GetDefaultDevice"><arg type="o" direction="out"/></method>
  </interface>
  <interface name="net.reactivated.Fprint.Device">
    <method name="ListEnrolledFingers">
      <arg type="s" direction="in"/><arg type="as" direction="out"/>
    </method>
    <method name="Claim"><arg type="s" direction="in"/></method>
    <method name="Release"/>
    <method name="VerifyStart"><arg type="s" direction="in"/></method>
    <method name="VerifyStop"/>
    <signal name="VerifyStatus"><arg type="s"/><arg type="b"/></signal>
  </interface>
</node>)";

std::string scenario;
std::string logPath;
GMainLoop* loop = nullptr;

void record(const gchar* method, GVariant* parameters) {
    std::string line = method;
    line += "(";
    if (g_variant_n_children(parameters) > 0) {
        const gchar* argument = nullptr;
        g_variant_get_child(parameters, 0, "&s", &argument);
        line += argument;
    }
    line += ")\n";
    if (FILE* log = std::fopen(logPath.c_str(), "a")) {
        std::fputs(line.c_str(), log);
        std::fclose(log);
    }
}

struct Status {
    GDBusConnection* bus;
    const char* result;
    bool done;
};

gboolean sendStatus(gpointer data) {
    auto* status = static_cast<Status*>(data);
    g_dbus_connection_emit_signal(status->bus, nullptr, devicePath, deviceInterface, "VerifyStatus",
                                  g_variant_new("(sb)", status->result, status->done), nullptr);
    return G_SOURCE_REMOVE;
}

void sendStatusLater(GDBusConnection* bus, guint milliseconds, const char* result, bool done) {
    g_timeout_add_full(G_PRIORITY_DEFAULT, milliseconds, sendStatus, new Status{bus, result, done},
                       [](gpointer data) { delete static_cast<Status*>(data); });
}

gboolean leave(gpointer) {
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
}

void handle(GDBusConnection* bus, const gchar*, const gchar*, const gchar*, const gchar* method,
            GVariant* parameters, GDBusMethodInvocation* invocation, gpointer) {
    record(method, parameters);
    std::string name = method;
    if (name == "GetDefaultDevice") {
        if (scenario == "no-reader")
            return g_dbus_method_invocation_return_dbus_error(
                invocation, "net.reactivated.Fprint.Error.NoSuchDevice", "No devices available");
        return g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", devicePath));
    }
    if (name == "ListEnrolledFingers") {
        if (scenario == "no-fingers")
            return g_dbus_method_invocation_return_dbus_error(
                invocation, "net.reactivated.Fprint.Error.NoEnrolledPrints", "No fingers enrolled");
        const gchar* fingers[] = {"right-index-finger", nullptr};
        return g_dbus_method_invocation_return_value(invocation, g_variant_new("(^as)", fingers));
    }
    if (name == "VerifyStart" && scenario == "no-fingers")
        return g_dbus_method_invocation_return_dbus_error(
            invocation, "net.reactivated.Fprint.Error.NoEnrolledPrints", "No fingers enrolled");
    g_dbus_method_invocation_return_value(invocation, nullptr);
    if (name != "VerifyStart") return;
    if (scenario == "match") {
        sendStatusLater(bus, 50, "verify-retry-scan", false);
        sendStatusLater(bus, 150, "verify-match", true);
    } else if (scenario == "no-match") {
        sendStatusLater(bus, 50, "verify-no-match", true);
    } else if (scenario == "vanish") {
        g_dbus_connection_flush_sync(bus, nullptr, nullptr);
        g_idle_add(leave, nullptr);
    }
}

void nameAcquired(GDBusConnection*, const gchar*, gpointer) {
    std::puts("ready");
    std::fflush(stdout);
}

void nameLost(GDBusConnection*, const gchar*, gpointer) {
    std::fputs("corvane-fprintd-standin: cannot own net.reactivated.Fprint\n", stderr);
    std::exit(1);
}

void busAcquired(GDBusConnection* bus, const gchar*, gpointer) {
    GError* error = nullptr;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(introspection, &error);
    static const GDBusInterfaceVTable vtable = {handle, nullptr, nullptr, {}};
    g_dbus_connection_register_object(bus, "/net/reactivated/Fprint/Manager", node->interfaces[0],
                                      &vtable, nullptr, nullptr, nullptr);
    g_dbus_connection_register_object(bus, devicePath, node->interfaces[1], &vtable, nullptr,
                                      nullptr, nullptr);
    g_dbus_node_info_unref(node);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: corvane-fprintd-standin SCENARIO LOG\n", stderr);
        return 2;
    }
    scenario = argv[1];
    logPath = argv[2];
    loop = g_main_loop_new(nullptr, FALSE);
    guint owner = g_bus_own_name(G_BUS_TYPE_SYSTEM, "net.reactivated.Fprint",
                                 G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, busAcquired, nameAcquired,
                                 nameLost, nullptr, nullptr);
    g_main_loop_run(loop);
    g_bus_unown_name(owner);
    g_main_loop_unref(loop);
    return 0;
}
