// Owning pointers for the GLib values the keyring code holds, so that every way out of a call,
// early returns included, lets them go. Internal to the keyring library.
#pragma once

#include <gio/gio.h>

#include <memory>

namespace corvane {

struct GLibRelease {
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GVariant* value) const { g_variant_unref(value); }
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
    void operator()(gchar* text) const { g_free(text); }
    void operator()(const gchar** list) const { g_free(list); }
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
    void operator()(GCancellable* cancellable) const { g_object_unref(cancellable); }
    void operator()(GSource* source) const {
        g_source_destroy(source);
        g_source_unref(source);
    }
};

template <typename T>
using GLibPointer = std::unique_ptr<T, GLibRelease>;

}  // namespace corvane
