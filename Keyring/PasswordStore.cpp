#include "PasswordStore.h"

#include <libsecret/secret.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "BusConnection.h"
#include "ThreadMainContext.h"

namespace corvane {

namespace {

// Found by `service` and `account` alone, so that an item another tool wrote under those
// attributes is still ours to read.
const SecretSchema passwordSchema = [] {
    SecretSchema schema{};
    schema.name = "org.corvane.Password";
    schema.flags = SECRET_SCHEMA_DONT_MATCH_NAME;
    schema.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    schema.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return schema;
}();

constexpr const char* secretServiceName = "org.freedesktop.secrets";
constexpr std::chrono::milliseconds probeTimeout{1500};

// A Secret Service connection of one call's own. libsecret's shared service instance stays on
// the bus it first found, and letting it go leaves GLib callbacks queued where nothing runs them;
// an instance of our own, opened and dropped on a private main context, leaves nothing behind.
// The process's shared session-bus connection would end the process if its bus closed while held.
class SecretServiceCall {
public:
    SecretServiceCall() {
        GError* error = nullptr;
        bus_.reset(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error));
        if (bus_) {
            g_dbus_connection_set_exit_on_close(bus_.get(), FALSE);
            service_.reset(secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr,
                                                    SECRET_SERVICE_NONE, nullptr, &error));
        }
        error_.reset(error);
    }
    SecretServiceCall(const SecretServiceCall&) = delete;
    SecretServiceCall& operator=(const SecretServiceCall&) = delete;

    // Nothing when the service could not be reached; error() says why.
    SecretService* service() const { return service_.get(); }
    const GError* error() const { return error_.get(); }

private:
    ThreadMainContext context_;  // first, so that it is drained after everything else is let go
    GLibPointer<GDBusConnection> bus_;
    std::unique_ptr<SecretService, void (*)(gpointer)> service_{nullptr, g_object_unref};
    GLibPointer<GError> error_;
};

struct AttributesRelease {
    void operator()(GHashTable* attributes) const { g_hash_table_unref(attributes); }
};

std::unique_ptr<GHashTable, AttributesRelease> attributes(const std::string& service,
                                                          const std::string& account) {
    return std::unique_ptr<GHashTable, AttributesRelease>(secret_attributes_build(
        &passwordSchema, "service", service.c_str(), "account", account.c_str(), nullptr));
}

// Storing replaces only an item with the same schema. One that another tool wrote under our
// attributes would stay beside ours, and a lookup may find it first: once ours holds the newest
// record, the other is removed. Best effort: a locked or refused one is left.
void removeItemsOfOtherSchemas(SecretService* service, GHashTable* attributes) {
    GList* items = secret_service_search_sync(service, &passwordSchema, attributes,
                                              SECRET_SEARCH_ALL, nullptr, nullptr);
    for (GList* each = items; each; each = each->next) {
        auto* item = static_cast<SecretItem*>(each->data);
        GLibPointer<gchar> schema(secret_item_get_schema_name(item));
        if (g_strcmp0(schema.get(), passwordSchema.name) != 0)
            secret_item_delete_sync(item, nullptr, nullptr);
    }
    g_list_free_full(items, g_object_unref);
}

// Where a new record goes, without unlocking it; nothing when the service has none.
std::unique_ptr<SecretCollection, void (*)(gpointer)> defaultCollection(SecretService* service) {
    return {secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT,
                                             SECRET_COLLECTION_NONE, nullptr, nullptr),
            g_object_unref};
}

bool hasOwnerOrActivates(GDBusConnection* bus) {
    GError* error = nullptr;
    GLibPointer<GVariant> owned(g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", secretServiceName), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, static_cast<gint>(probeTimeout.count()), nullptr, &error));
    GLibPointer<GError> ownedError(error);
    gboolean hasOwner = FALSE;
    if (owned) g_variant_get(owned.get(), "(b)", &hasOwner);
    if (hasOwner) return true;

    error = nullptr;
    GLibPointer<GVariant> activatable(g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "ListActivatableNames", nullptr, G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE,
        static_cast<gint>(probeTimeout.count()), nullptr, &error));
    GLibPointer<GError> activatableError(error);
    if (!activatable) return false;
    GLibPointer<GVariant> names(g_variant_get_child_value(activatable.get(), 0));
    gsize count = 0;
    GLibPointer<const gchar*> list(g_variant_get_strv(names.get(), &count));
    return std::any_of(list.get(), list.get() + count,
                       [](const gchar* name) { return std::strcmp(name, secretServiceName) == 0; });
}

}  // namespace

std::string PasswordStore::serviceFromEnvironment() {
    const char* value = std::getenv("CORVANE_KEYCHAIN_SERVICE");
    return value ? value : defaultService;
}

PasswordStore::PasswordStore(std::string service, std::string account)
    : service_(std::move(service)), account_(std::move(account)) {}

PasswordStore::Reading PasswordStore::read() const {
    SecretServiceCall call;
    if (!call.service()) return {State::noService, std::nullopt};
    auto itemAttributes = attributes(service_, account_);
    // Attributes are searchable while a collection is locked; secrets are not.
    GError* searchError = nullptr;
    GList* items = secret_service_search_sync(call.service(), &passwordSchema, itemAttributes.get(),
                                              SECRET_SEARCH_ALL, nullptr, &searchError);
    // Opening the service succeeds without one: the first call is what finds nobody there.
    if (GLibPointer<GError> failed(searchError); failed) return {State::noService, std::nullopt};
    bool found = items != nullptr, locked = false;
    for (GList* each = items; each; each = each->next)
        locked = locked || secret_item_get_locked(static_cast<SecretItem*>(each->data));
    g_list_free_full(items, g_object_unref);
    if (!found) {
        // Where a new record would go: locked, it may hide one a search cannot see.
        auto collection = defaultCollection(call.service());
        bool collectionLocked = collection && secret_collection_get_locked(collection.get());
        return {collectionLocked ? State::locked : State::noRecord, std::nullopt};
    }
    if (locked) return {State::locked, std::nullopt};

    GError* error = nullptr;
    SecretValue* value = secret_service_lookup_sync(call.service(), &passwordSchema,
                                                    itemAttributes.get(), nullptr, &error);
    GLibPointer<GError> failure(error);
    if (!value) return {State::record, std::nullopt};
    gsize length = 0;
    gchar* stored = secret_value_unref_to_password(value, &length);
    if (!stored) return {State::record, std::nullopt};
    Reading reading{State::record, std::nullopt};
    try {
        // Refuses a value over 64 KiB before reading it.
        reading.secret = StoredSecret::decode(std::string_view(stored, length));
    } catch (const std::exception&) {
        reading.secret.reset();
    }
    secret_password_free(stored);
    return reading;
}

std::optional<StoredSecret> PasswordStore::load() const {
    return read().secret;
}

bool PasswordStore::unlock() const {
    SecretServiceCall call;
    if (!call.service()) return false;
    auto collection = defaultCollection(call.service());
    if (!collection) return false;
    if (!secret_collection_get_locked(collection.get())) return true;
    GList* objects = g_list_append(nullptr, collection.get());
    gint unlocked = secret_service_unlock_sync(call.service(), objects, nullptr, nullptr, nullptr);
    g_list_free(objects);
    return unlocked > 0;
}

void PasswordStore::save(const StoredSecret& secret) const {
    SecretServiceCall call;
    if (!call.service()) throw KeyringError(call.error()->message);
    std::string encoded = secret.encode();
    // libsecret copies the text into its own memory, which it wipes when done.
    SecretValue* value = secret_value_new(encoded.c_str(), -1, "text/plain");
    explicit_bzero(encoded.data(), encoded.size());
    GError* error = nullptr;
    // The service replaces the value of an item with the same attributes: there is never a
    // second one.
    auto itemAttributes = attributes(service_, account_);
    gboolean stored =
        secret_service_store_sync(call.service(), &passwordSchema, itemAttributes.get(),
                                  SECRET_COLLECTION_DEFAULT, label, value, nullptr, &error);
    secret_value_unref(value);
    GLibPointer<GError> failure(error);
    if (!stored) throw KeyringError(failure ? failure->message : "the keyring did not store it");
    removeItemsOfOtherSchemas(call.service(), itemAttributes.get());
}

std::optional<std::string> PasswordStore::unavailableReason() {
    auto bus = BusConnection::open(G_BUS_TYPE_SESSION, probeTimeout);
    if (bus && hasOwnerOrActivates(bus.get())) return std::nullopt;
    return "Corvane keeps its password in your desktop keyring, and no keyring is running. Start "
           "GNOME Keyring, or KWallet with its Secret Service, then try again.";
}

}  // namespace corvane
