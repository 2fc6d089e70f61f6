#include "BusConnection.h"

#include "ThreadMainContext.h"

namespace corvane {

namespace {

struct PendingConnection {
    GLibPointer<GDBusConnection> connection;
    GLibPointer<GError> error;
    bool finished = false;
};

void connected(GObject*, GAsyncResult* result, gpointer data) {
    auto* pending = static_cast<PendingConnection*>(data);
    GError* error = nullptr;
    pending->connection.reset(g_dbus_connection_new_for_address_finish(result, &error));
    pending->error.reset(error);
    pending->finished = true;
}

gboolean cancelOnTimeout(gpointer cancellable) {
    g_cancellable_cancel(static_cast<GCancellable*>(cancellable));
    return G_SOURCE_REMOVE;
}

}  // namespace

GLibPointer<GDBusConnection> BusConnection::open(GBusType bus, std::chrono::milliseconds timeout,
                                                 std::string* failure) {
    GError* error = nullptr;
    GLibPointer<gchar> address(g_dbus_address_get_for_bus_sync(bus, nullptr, &error));
    if (!address) {
        if (failure) *failure = error->message;
        g_error_free(error);
        return nullptr;
    }
    // The handshake runs asynchronously so that a bus that accepts but never answers is given up
    // on at the deadline instead of holding the caller.
    ThreadMainContext context;
    GLibPointer<GCancellable> cancellable(g_cancellable_new());
    GLibPointer<GSource> deadline(g_timeout_source_new(static_cast<guint>(timeout.count())));
    g_source_set_callback(deadline.get(), cancelOnTimeout, cancellable.get(), nullptr);
    g_source_attach(deadline.get(), context.get());
    PendingConnection pending;
    g_dbus_connection_new_for_address(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable.get(), connected, &pending);
    while (!pending.finished) g_main_context_iteration(context.get(), TRUE);
    if (!pending.connection && failure) *failure = pending.error->message;
    return std::move(pending.connection);
}

}  // namespace corvane
