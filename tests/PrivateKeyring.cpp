#include "PrivateKeyring.h"

#include <gio/gio.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace corvane::testing {

namespace {

constexpr const char* secretsName = "org.freedesktop.secrets";
constexpr const char* secretsPath = "/org/freedesktop/secrets";
constexpr const char* secretsInterface = "org.freedesktop.Secret.Service";

GVariant* callSecrets(GDBusConnection* bus, const char* path, const char* interface,
                      const char* method, GVariant* arguments, const char* replyType) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(bus, secretsName, path, interface, method,
                                                  arguments, G_VARIANT_TYPE(replyType),
                                                  G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (!reply) {
        std::string message = std::string(method) + ": " + error->message;
        g_error_free(error);
        throw std::runtime_error(message);
    }
    return reply;
}

std::string objectPath(GVariant* reply) {
    const gchar* path = nullptr;
    g_variant_get(reply, "(&o)", &path);
    std::string result = path;
    g_variant_unref(reply);
    return result;
}

// Items are stored in the "default" alias. The keyring creates and unlocks "login" from the
// password it is handed; should the alias be missing, it is pointed there.
void ensureUnlockedDefaultCollection(const std::string& address) {
    GError* error = nullptr;
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!bus) {
        std::string message = error->message;
        g_error_free(error);
        throw std::runtime_error(message);
    }
    auto readAlias = [&] {
        return objectPath(callSecrets(bus, secretsPath, secretsInterface, "ReadAlias",
                                      g_variant_new("(s)", "default"), "(o)"));
    };
    try {
        std::string collection = readAlias();
        if (collection == "/") {
            std::string login = std::string(secretsPath) + "/collection/login";
            g_variant_unref(callSecrets(bus, secretsPath, secretsInterface, "SetAlias",
                                        g_variant_new("(so)", "default", login.c_str()), "()"));
            collection = readAlias();
        }
        if (collection == "/") throw std::runtime_error("the keyring has no default collection");
        GVariant* reply = callSecrets(
            bus, collection.c_str(), "org.freedesktop.DBus.Properties", "Get",
            g_variant_new("(ss)", "org.freedesktop.Secret.Collection", "Locked"), "(v)");
        GVariant* locked = nullptr;
        g_variant_get(reply, "(v)", &locked);
        bool isLocked = g_variant_get_boolean(locked);
        g_variant_unref(locked);
        g_variant_unref(reply);
        if (isLocked) throw std::runtime_error("the default collection is locked");
    } catch (...) {
        g_object_unref(bus);
        throw;
    }
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
}

}  // namespace

PrivateKeyring::PrivateKeyring() {
    std::string home = bus_.folder() / "home";
    std::string runtime = bus_.folder() / "runtime";
    std::filesystem::create_directories(home);
    std::filesystem::create_directories(runtime);
    chmod(runtime.c_str(), 0700);
    keyring_ = std::make_unique<DaemonProcess>(
        std::vector<std::string>{"gnome-keyring-daemon", "--unlock", "--components=secrets",
                                 "--foreground"},
        bus_.errorLog(),
        std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + bus_.address(), "HOME=" + home,
                                 "XDG_DATA_HOME=" + home + "/.local/share",
                                 "XDG_CONFIG_HOME=" + home + "/.config",
                                 "XDG_RUNTIME_DIR=" + runtime},
        "corvane-test-keyring");
    if (!bus_.waitForName(secretsName))
        throw std::runtime_error("gnome-keyring-daemon did not take " + std::string(secretsName) +
                                 ": " + readFile(bus_.errorLog()));
    ensureUnlockedDefaultCollection(bus_.address());
    if (const char* previous = std::getenv("DBUS_SESSION_BUS_ADDRESS")) previousAddress_ = previous;
    setenv("DBUS_SESSION_BUS_ADDRESS", bus_.address().c_str(), 1);
}

PrivateKeyring::~PrivateKeyring() {
    if (previousAddress_)
        setenv("DBUS_SESSION_BUS_ADDRESS", previousAddress_->c_str(), 1);
    else
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    keyring_.reset();
}

}  // namespace corvane::testing
