// The password store against a real gnome-keyring on a private session bus, and the fingerprint
// check against the stand-in fingerprint service on a private system bus.
#include <gtest/gtest.h>

#include "FileSystem/ProcessRunner.h"
#include "FingerprintReader.h"
#include "PasswordStore.h"
#include "PrivateKeyring.h"
#include "PrivateSystemBus.h"

namespace corvane {
namespace {

using testing::DaemonProcess;
using testing::PrivateBus;
using testing::PrivateKeyring;
using testing::PrivateSystemBus;
using testing::ScopedVariable;
using testing::secondsSince;
using testing::TempDir;
using Calls = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

const std::string noKeyring =
    "Corvane keeps its password in your desktop keyring, and no keyring is running. Start GNOME "
    "Keyring, or KWallet with its Secret Service, then try again.";

StoredSecret record(std::string password, std::int64_t generation = 1,
                    std::optional<std::string> previous = {},
                    std::vector<std::string> history = {}) {
    return {std::move(password), generation, std::move(previous), std::move(history)};
}

class PasswordStoreTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { keyring = std::make_unique<PrivateKeyring>(); }
    static void TearDownTestSuite() { keyring.reset(); }

    static ProcessResult secretTool(const std::vector<std::string>& arguments,
                                    const std::optional<std::string>& input = std::nullopt) {
        return ProcessRunner::run(DaemonProcess::find("secret-tool"), arguments, input, 10.0);
    }
    // Items under these attributes, whatever tool wrote them.
    static int itemCount(const std::string& service) {
        auto found = secretTool({"search", "--all", "service", service, "account", "main"});
        int count = 0;
        for (std::size_t at = 0; (at = found.output.find("[/", at)) != std::string::npos; ++at)
            ++count;
        return count;
    }

    static inline std::unique_ptr<PrivateKeyring> keyring;
};

// Each saved over an earlier record, which it replaces.
TEST_F(PasswordStoreTest, RecordsGoInAndComeBackWhole) {
    EXPECT_EQ(PasswordStore::unavailableReason(), std::nullopt);
    const std::vector<StoredSecret> records = {
        record("first"),
        record("second", 7, "first", {"zero", "first"}),
        record("quote \" backslash \\ newline \n tab \t é 鍵 🔑", 1, "", {""}),
        record(std::string(4000, 'x'), INT64_MAX),
    };
    for (std::size_t row = 0; row < records.size(); ++row) {
        const std::string service = "corvane.test.roundtrip." + std::to_string(row);
        PasswordStore store(service);
        EXPECT_EQ(store.load(), std::nullopt) << row;
        store.save(record("older", 1, "oldest", {"oldest"}));
        store.save(records[row]);
        EXPECT_EQ(store.load(), records[row]) << row;
        EXPECT_EQ(itemCount(service), 1) << row;
    }
}

TEST_F(PasswordStoreTest, ServicesAndAccountsNeverSeeEachOthersRecord) {
    {
        ScopedVariable empty("CORVANE_KEYCHAIN_SERVICE", "");
        EXPECT_EQ(PasswordStore::serviceFromEnvironment(), "");
        ScopedVariable unset("CORVANE_KEYCHAIN_SERVICE", std::nullopt);
        EXPECT_EQ(PasswordStore::serviceFromEnvironment(), PasswordStore::defaultService);
    }
    const std::vector<std::pair<PasswordStore, StoredSecret>> stores = {
        {PasswordStore(""), record("empty service")},
        {PasswordStore("corvane.test.other"), record("other service")},
        {PasswordStore("", "second"), record("empty service, second account")},
    };
    for (const auto& [store, secret] : stores) store.save(secret);
    for (const auto& [store, secret] : stores)
        EXPECT_EQ(store.load(), secret) << "'" << store.service() << "' " << store.account();
}

TEST_F(PasswordStoreTest, ValuesWrittenByOtherToolsLoadOnlyWhenTheyDecodeAndGiveWayToASave) {
    const std::vector<std::pair<std::string, std::optional<StoredSecret>>> cases = {
        {record("written elsewhere", 3).encode(), record("written elsewhere", 3)},
        {"not json", std::nullopt},
        {"{}", std::nullopt},
        {R"({"password":"p","generation":"one"})", std::nullopt},
        {"[]", std::nullopt},
        // Decodes, but larger than any password record.
        {record(std::string(70000, 'p')).encode(), std::nullopt},
    };
    for (std::size_t row = 0; row < cases.size(); ++row) {
        std::string service = "corvane.test.foreign." + std::to_string(row);
        auto stored =
            secretTool({"store", "--label=elsewhere", "service", service, "account", "main"},
                       cases[row].first);
        ASSERT_EQ(stored.status, 0) << stored.output;
        EXPECT_EQ(PasswordStore(service).load(), cases[row].second) << row;
        // Saving over it leaves our item alone, whichever a lookup would find first.
        PasswordStore(service).save(record("ours"));
        EXPECT_EQ(PasswordStore(service).load(), record("ours")) << row;
        EXPECT_EQ(itemCount(service), 1) << row;
    }
}

// Without a keyring nothing loads, a save says why, and the reason is ready at once.
TEST(PasswordStore, WithoutAKeyringNothingLoadsAndSavesFail) {
    TempDir emptyRuntime;
    PrivateBus busWithoutKeyring;
    struct Case {
        std::string name;
        std::optional<std::string> address;
        std::string saveError;
    };
    const std::vector<Case> cases = {
        {"no bus address", std::nullopt, ""},
        {"no bus there", "unix:path=" + emptyRuntime / "bus",
         "Could not connect: No such file or directory"},
        {"bus without keyring", busWithoutKeyring.address(),
         "The name org.freedesktop.secrets was not provided by any .service files"},
    };
    ScopedVariable runtime("XDG_RUNTIME_DIR", emptyRuntime.path());
    ScopedVariable display("DISPLAY", std::nullopt);
    for (const auto& each : cases) {
        ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", each.address);
        PasswordStore store("corvane.test.nokeyring");
        auto start = Clock::now();
        EXPECT_EQ(PasswordStore::unavailableReason(), noKeyring) << each.name;
        EXPECT_LT(secondsSince(start), 1.0) << each.name;
        EXPECT_EQ(store.load(), std::nullopt) << each.name;
        try {
            store.save(record("nowhere"));
            ADD_FAILURE() << each.name << ": saved";
        } catch (const KeyringError& error) {
            // Without any address GLib's words depend on how it would start a bus here.
            if (!each.saveError.empty()) {
                EXPECT_EQ(std::string(error.what()), each.saveError) << each.name;
            }
            EXPECT_STRNE(error.what(), "") << each.name;
        }
    }

    // A bus that takes the connection and never answers is given up on quickly too.
    testing::SocketListener silent(emptyRuntime / "silent", 0);
    ASSERT_EQ(silent.lines(), Calls{}) << "no silent bus";
    ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + emptyRuntime / "silent");
    auto start = Clock::now();
    EXPECT_EQ(PasswordStore::unavailableReason(), noKeyring);
    EXPECT_LT(secondsSince(start), 2.5);
}

TEST(FingerprintReader, OnlyAMatchVerifiesAndTheDeviceIsAlwaysLetGo) {
    const Calls verified = {"GetDefaultDevice()", "Claim()", "VerifyStart(any)", "VerifyStop()",
                            "Release()"};
    struct Case {
        std::string scenario;
        bool available;
        bool matched;
        Calls verifyCalls;
        std::chrono::milliseconds timeout = std::chrono::seconds(30);
        std::chrono::milliseconds stopAfter = std::chrono::hours(1);
        double atLeast = 0, atMost = 2;
    };
    const std::vector<Case> cases = {
        {"match", true, true, verified},
        {"no-match", true, false, verified},
        {"no-reader", false, false, {"GetDefaultDevice()"}},
        {"no-fingers",
         false,
         false,
         {"GetDefaultDevice()", "Claim()", "VerifyStart(any)", "Release()"}},
        {"silent", true, false, verified, std::chrono::milliseconds(600), std::chrono::hours(1),
         0.6, 1.5},
        {"silent", true, false, verified, std::chrono::seconds(30), std::chrono::milliseconds(400),
         0.4, 1.5},
        {"vanish", true, false, {"GetDefaultDevice()", "Claim()", "VerifyStart(any)"}},
    };
    for (const auto& each : cases) {
        std::string name = each.scenario + " " + std::to_string(each.timeout.count()) + " ms";
        PrivateSystemBus bus(each.scenario);
        FingerprintReader reader;
        EXPECT_EQ(reader.available(), each.available) << name;
        Calls checked = bus.calls();
        auto start = Clock::now();
        bool matched =
            reader.verify(each.timeout, [&] { return Clock::now() - start > each.stopAfter; });
        double seconds = secondsSince(start);
        EXPECT_EQ(matched, each.matched) << name;
        EXPECT_GE(seconds, each.atLeast) << name;
        EXPECT_LT(seconds, each.atMost) << name;
        Calls calls = bus.calls();
        EXPECT_EQ(Calls(calls.begin() + std::ptrdiff_t(checked.size()), calls.end()),
                  each.verifyCalls)
            << name;
    }
}

TEST(FingerprintReader, NoSystemBusMeansNoReader) {
    TempDir empty;
    ScopedVariable address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + empty / "bus");
    auto start = Clock::now();
    EXPECT_FALSE(FingerprintReader().available());
    EXPECT_FALSE(FingerprintReader().verify());
    EXPECT_LT(secondsSince(start), 1.0);
}

}  // namespace
}  // namespace corvane
