// The four ways the keyring can stand for our record, against a real gnome-keyring whose login
// collection the test locks as a screen lock or an auto-login session leaves it.
#include <gtest/gtest.h>
#include <gio/gio.h>

#include "FileSystem/ProcessRunner.h"
#include "PasswordStore.h"
#include "PrivateKeyring.h"
#include "TestSupport.h"

namespace corvane {
namespace {

using State = PasswordStore::State;

// Locks the default collection through the service, as the desktop does; no prompt is needed.
bool lockDefaultCollection() {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (!bus) return false;
    const gchar* paths[] = {"/org/freedesktop/secrets/aliases/default", nullptr};
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.secrets", "/org/freedesktop/secrets", "org.freedesktop.Secret.Service",
        "Lock", g_variant_new("(^ao)", paths), G_VARIANT_TYPE("(aoo)"), G_DBUS_CALL_FLAGS_NONE,
        5000, nullptr, &error);
    if (error) g_error_free(error);
    if (reply) g_variant_unref(reply);
    g_object_unref(bus);
    return reply != nullptr;
}

TEST(PasswordStoreStates, ALockedKeyringIsNeitherEmptyNorOverwritten) {
    testing::PrivateKeyring keyring;
    PasswordStore ours("corvane.test.states"), other("corvane.test.states.other");
    EXPECT_EQ(ours.read().state, State::noRecord);
    ours.save({"first password", 1, std::nullopt, {}});
    auto reading = ours.read();
    EXPECT_EQ(reading.state, State::record);
    ASSERT_TRUE(reading.secret);
    EXPECT_EQ(reading.secret->password, "first password");

    ASSERT_TRUE(lockDefaultCollection());
    EXPECT_EQ(ours.read().state, State::locked) << "a locked record read as none";
    EXPECT_EQ(ours.load(), std::nullopt);
    // Nothing of ours there, but a record saved now would go into the locked collection.
    EXPECT_EQ(other.read().state, State::locked);

    // The command says so, and its setup replaces nothing.
    testing::TempDir support;
    testing::ScopedVariable supportFolder("CORVANE_SUPPORT_DIR", support.path());
    testing::ScopedVariable service("CORVANE_KEYCHAIN_SERVICE", "corvane.test.states");
    auto status = ProcessRunner::run(CORVANE_PROGRAM, {"status"}, std::nullopt, 30.0);
    EXPECT_NE(status.output.find("Set up:                 unknown\nKeyring:                locked"),
              std::string::npos)
        << status.output;
    auto setup = ProcessRunner::run(CORVANE_PROGRAM, {"--password-stdin", "setup"},
                                    std::string("a new password\n"), 30.0);
    EXPECT_EQ(setup.status, 1);
    EXPECT_EQ(setup.output,
              "Your desktop keyring is locked, so nothing was changed. Unlock it (log in "
              "again, or open Passwords and Keys), then try again.\n");
}

TEST(PasswordStoreStates, NoServiceIsSaidAsSuch) {
    testing::PrivateBus busWithoutKeyring;
    testing::ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", busWithoutKeyring.address());
    EXPECT_EQ(PasswordStore("corvane.test.states").read().state, State::noService);
}

}  // namespace
}  // namespace corvane
