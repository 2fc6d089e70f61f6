#include "FingerprintReader.h"

#include <optional>
#include <string>

#include "BusConnection.h"
#include "ThreadMainContext.h"

namespace corvane {

namespace {

constexpr const char* fprintName = "net.reactivated.Fprint";
constexpr const char* managerPath = "/net/reactivated/Fprint/Manager";
constexpr const char* managerInterface = "net.reactivated.Fprint.Manager";
constexpr const char* deviceInterface = "net.reactivated.Fprint.Device";

// A wedged fingerprint service must not hold a command: every call gets a few seconds.
constexpr std::chrono::milliseconds callTimeout{3000};
constexpr std::chrono::milliseconds stopPollInterval{100};

// The service is started on demand by the manager call; a device call never starts it, since a
// new instance would not know the device we hold.
GLibPointer<GVariant> call(GDBusConnection* bus, const std::string& path, const char* interface,
                           const char* method, GVariant* arguments, const char* replyType) {
    GError* error = nullptr;
    auto flags = g_strcmp0(interface, managerInterface) == 0 ? G_DBUS_CALL_FLAGS_NONE
                                                             : G_DBUS_CALL_FLAGS_NO_AUTO_START;
    GLibPointer<GVariant> reply(g_dbus_connection_call_sync(
        bus, fprintName, path.c_str(), interface, method, arguments, G_VARIANT_TYPE(replyType),
        flags, static_cast<gint>(callTimeout.count()), nullptr, &error));
    if (error) g_error_free(error);
    return reply;
}

std::optional<std::string> defaultDevice(GDBusConnection* bus) {
    auto reply = call(bus, managerPath, managerInterface, "GetDefaultDevice", nullptr, "(o)");
    if (!reply) return std::nullopt;
    const gchar* path = nullptr;
    g_variant_get(reply.get(), "(&o)", &path);
    return std::string(path);
}

// What the device has said so far about the verification in progress.
class VerifyListener {
public:
    VerifyListener(GDBusConnection* bus, const std::string& devicePath) : bus_(bus) {
        subscription_ = g_dbus_connection_signal_subscribe(
            bus, fprintName, deviceInterface, "VerifyStatus", devicePath.c_str(), nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE, onVerifyStatus, this, nullptr);
        // A service that goes away mid-scan will never report: stop waiting for it.
        watch_ = g_bus_watch_name_on_connection(bus, fprintName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                nullptr, onVanished, this, nullptr);
    }
    ~VerifyListener() {
        g_bus_unwatch_name(watch_);
        g_dbus_connection_signal_unsubscribe(bus_, subscription_);
    }
    VerifyListener(const VerifyListener&) = delete;
    VerifyListener& operator=(const VerifyListener&) = delete;

    bool finished() const { return finished_; }
    bool matched() const { return matched_; }

private:
    static void onVerifyStatus(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                               const gchar*, GVariant* parameters, gpointer data) {
        auto* self = static_cast<VerifyListener*>(data);
        if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sb)"))) return;
        const gchar* result = nullptr;
        gboolean done = FALSE;
        g_variant_get(parameters, "(&sb)", &result, &done);
        // Retry results ("verify-retry-scan", "verify-swipe-too-short", ...) come with done
        // false and ask the user to try again; a match, or any result with done, ends the wait.
        if (g_strcmp0(result, "verify-match") == 0) {
            self->matched_ = true;
            self->finished_ = true;
        } else if (done) {
            self->finished_ = true;
        }
    }
    static void onVanished(GDBusConnection*, const gchar*, gpointer data) {
        static_cast<VerifyListener*>(data)->finished_ = true;
    }

    GDBusConnection* bus_;
    guint subscription_ = 0;
    guint watch_ = 0;
    bool finished_ = false;
    bool matched_ = false;
};

gboolean keepTicking(gpointer) {
    return G_SOURCE_CONTINUE;
}

// A claimed device, released on every way out, with a started verification stopped first.
class ClaimedDevice {
public:
    ClaimedDevice(GDBusConnection* bus, std::string path) : bus_(bus), path_(std::move(path)) {
        claimed_ =
            call(bus_, path_, deviceInterface, "Claim", g_variant_new("(s)", ""), "()") != nullptr;
    }
    ~ClaimedDevice() {
        if (verifying_) call(bus_, path_, deviceInterface, "VerifyStop", nullptr, "()");
        if (claimed_) call(bus_, path_, deviceInterface, "Release", nullptr, "()");
    }
    ClaimedDevice(const ClaimedDevice&) = delete;
    ClaimedDevice& operator=(const ClaimedDevice&) = delete;

    bool claimed() const { return claimed_; }
    bool startVerifying() {
        verifying_ = call(bus_, path_, deviceInterface, "VerifyStart", g_variant_new("(s)", "any"),
                          "()") != nullptr;
        return verifying_;
    }

private:
    GDBusConnection* bus_;
    std::string path_;
    bool claimed_ = false;
    bool verifying_ = false;
};

}  // namespace

bool FingerprintReader::available() const {
    auto bus = BusConnection::open(G_BUS_TYPE_SYSTEM, callTimeout);
    if (!bus) return false;
    auto device = defaultDevice(bus.get());
    if (!device) return false;
    // The service says "none" with the NoEnrolledPrints error; an empty list reads the same.
    auto fingers = call(bus.get(), *device, deviceInterface, "ListEnrolledFingers",
                        g_variant_new("(s)", ""), "(as)");
    if (!fingers) return false;
    GLibPointer<GVariant> list(g_variant_get_child_value(fingers.get(), 0));
    return g_variant_n_children(list.get()) > 0;
}

bool FingerprintReader::verify(std::chrono::milliseconds timeout,
                               const std::function<bool()>& stopRequested) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    auto stopping = [&] { return stopRequested && stopRequested(); };
    if (stopping()) return false;

    // Declared first so that it outlives everything that queues callbacks on it.
    ThreadMainContext context;
    auto bus = BusConnection::open(G_BUS_TYPE_SYSTEM, callTimeout);
    if (!bus) return false;
    auto device = defaultDevice(bus.get());
    if (!device) return false;

    // Wakes the wait a few times a second to ask `stopRequested` and read the clock.
    GLibPointer<GSource> tick(g_timeout_source_new(static_cast<guint>(stopPollInterval.count())));
    g_source_set_callback(tick.get(), keepTicking, nullptr, nullptr);
    g_source_attach(tick.get(), context.get());
    // Listening before VerifyStart, which may report at once.
    VerifyListener listener(bus.get(), *device);
    ClaimedDevice claim(bus.get(), *device);
    if (!claim.claimed() || !claim.startVerifying()) return false;
    while (!listener.finished() && !stopping() && std::chrono::steady_clock::now() < deadline)
        g_main_context_iteration(context.get(), TRUE);
    return listener.matched();
}

}  // namespace corvane
