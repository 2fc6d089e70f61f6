// Auto-lock against the real engine on gocryptfs: a stand-in logind and screen savers on private
// buses send what a desktop would, and the model locks, reports files in use once, retries, and
// lets a sleep go on only when its items are locked.
#include <QElapsedTimer>
#include <QLabel>
#include <iostream>

#include "AppModelFixture.h"
#include "DesktopStandIn.h"
#include "PrivateBus.h"
#include "Records/IdlePolicy.h"
#include "SettingsWindow.h"
#include "WindowSeams.h"

namespace corvane::testing {

namespace {

using namespace std::chrono_literals;
using Trigger = app::AutoLock::Trigger;

const QString kGnomeScreenSaver = QStringLiteral("org.gnome.ScreenSaver");
const QString kScreenSaver = QStringLiteral("org.freedesktop.ScreenSaver");
const std::string kNoticeBody =
    "Files are still open in another app. Close them and Corvane will lock automatically.";

void spinFor(std::chrono::milliseconds time) {
    spinUntil([] { return false; }, time);
}

// A process holding `path` open until it is destroyed.
std::unique_ptr<BackgroundProcess> holding(const std::string& path) {
    auto holder = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{"/bin/sh", "-c", "exec 3<\"$0\"; exec sleep 600", path});
    EXPECT_TRUE(holder->waitUntilHolding(path));
    return holder;
}

// How many times the model began to lock one item.
class LockAttempts {
public:
    LockAttempts(app::AppModel& model, const std::string& name) {
        connection_ = QObject::connect(
            &model, &app::AppModel::activityChanged, [this, &model, label = "locking " + name] {
                auto now = model.activity().descriptions();
                bool locking = std::find(now.begin(), now.end(), label) != now.end();
                if (locking && !locking_) ++count;
                locking_ = locking;
            });
    }
    ~LockAttempts() { QObject::disconnect(connection_); }
    int count = 0;

private:
    QMetaObject::Connection connection_;
    bool locking_ = false;
};

// Whether the settings, as the application fills them, say inactivity cannot lock here.
bool settingsSayIdleUnavailable(app::AppModel& model) {
    app::SettingsWindow window(app::WindowSeams::settings(
        model, [] { return false; }, [](bool) {}));
    window.show();
    for (auto* label : window.findChildren<QLabel*>())
        if (label->text() == "Locking after inactivity is not available on this desktop.")
            return label->isVisible();
    ADD_FAILURE() << "no such line";
    return false;
}

}  // namespace

TEST(IdlePolicyTest, LocksFromTheLimitOnAndOnlyWithItemsOpen) {
    struct Case {
        double seconds;
        int minutes;
        bool open;
        bool locks;
    };
    for (const auto& test : std::vector<Case>{{900, 15, true, true},
                                              {899.9, 15, true, false},
                                              {1e9, 0, true, false},
                                              {900, 15, false, false},
                                              {300, 5, true, true}}) {
        SCOPED_TRACE(std::to_string(test.seconds) + " s, " + std::to_string(test.minutes));
        EXPECT_EQ(IdlePolicy::shouldLock(test.seconds, test.minutes, test.open), test.locks);
    }
}

TEST(AutoLockSettingsTest, TheLimitIsTheStoredWholeNumberElseFifteen) {
    TempDir folder;
    std::string path = folder / "settings.json";
    app::AutoLock autoLock({[] { return false; }, [](Trigger) {}}, UserSettings(path));
    struct Case {
        std::optional<std::string> stored;
        int minutes;
    };
    for (const auto& test : std::vector<Case>{{std::nullopt, 15},
                                              {R"({"corvane.idleMinutes": 5})", 5},
                                              {R"({"corvane.idleMinutes": "5"})", 15},
                                              {R"({"corvane.idleMinutes": 5.5})", 15},
                                              {"not json", 15}}) {
        SCOPED_TRACE(test.stored.value_or("missing"));
        std::filesystem::remove(path);
        if (test.stored) writeFile(path, *test.stored);
        EXPECT_EQ(autoLock.idleMinutes(), test.minutes);
    }
}

class AutoLockTest : public AppModelTest {
protected:
    // The model with retries and idle checks a few times a second, once start-up is over.
    app::AppModel& startModel(std::chrono::milliseconds retry = 300ms) {
        model.reset();
        auto settings = configuration();
        settings.autoLockRetryInterval = retry;
        settings.idleCheckInterval = 100ms;
        model = std::make_unique<app::AppModel>(app::AppModel::Services{user, user, user, user},
                                                settings);
        EXPECT_TRUE(model->start());
        settle();
        return *model;
    }

    void startDesktop(DesktopStandIn::Present present = {}) {
        desktop.reset();
        desktop = std::make_unique<DesktopStandIn>(
            loginBus.address(), std::getenv("DBUS_SESSION_BUS_ADDRESS"), present);
    }

    // Until auto-lock found the session and asked for the idle time: every signal it listens to
    // reaches it from then on.
    void waitUntilListening() {
        ASSERT_TRUE(spinUntil(
            [&] {
                return desktop->calls("Get") > 0 &&
                       desktop->calls("GetIdletime") + desktop->calls("GetSessionIdleTime") > 0;
            },
            10s));
    }

    // Unlocks the item made of folder NAME, locking the folder first when there is no such item
    // yet; its mount point.
    std::string unlockItem(const std::string& name) {
        auto row = [&]() -> std::optional<app::ItemRow> {
            for (const auto& each : model->rows())
                if (each.name == name && each.url) return each;
            return std::nullopt;
        };
        if (!row()) await(model->lock(folder(name)));
        EXPECT_TRUE(row());
        if (!row()) return {};
        user.passwords = {"password 1"};
        await(model->unlock(*row()->url));
        for (const auto& item : model->openItems())
            if (item.name == name) return item.mountPoint;
        ADD_FAILURE() << name << " did not open";
        return {};
    }

    std::string notice(const std::string& name) const {
        return "notify: Corvane could not lock " + name + " | " + kNoticeBody;
    }

    PrivateBus loginBus;
    ScopedVariable loginAddress{"DBUS_SYSTEM_BUS_ADDRESS", loginBus.address()};
    std::unique_ptr<DesktopStandIn> desktop;
};

TEST_F(AutoLockTest, EachScreenLockLocksAndFilesInUseAreReportedOnceThenRetriedWhileAway) {
    startDesktop();
    desktop->mutterIdleMilliseconds = 2'000;
    app::AppModel& app = startModel();
    waitUntilListening();

    // With nothing open, a screen lock does nothing.
    LockAttempts anything(app, "Report");
    desktop->emitScreenSaver(kGnomeScreenSaver, true);
    spinFor(300ms);
    EXPECT_TRUE(app.autoLock().screenIsLocked());
    EXPECT_EQ(anything.count, 0);
    EXPECT_FALSE(app.autoLockRetrying());
    desktop->emitScreenSaver(kGnomeScreenSaver, false);

    std::string mount = unlockItem("Report");
    auto holder = holding(mount + "/a.txt");
    struct Source {
        const char* name;
        std::function<void()> lock;
        std::function<void()> unlock;
    };
    std::vector<Source> sources = {
        {"GNOME Shell", [&] { desktop->emitScreenSaver(kGnomeScreenSaver, true); },
         [&] { desktop->emitScreenSaver(kGnomeScreenSaver, false); }},
        {"freedesktop screen saver", [&] { desktop->emitScreenSaver(kScreenSaver, true); },
         [&] { desktop->emitScreenSaver(kScreenSaver, false); }},
        {"logind Lock", [&] { desktop->emitSession("Lock"); },
         [&] { desktop->emitSession("Unlock"); }},
        {"logind LockedHint", [&] { desktop->changeSession("LockedHint", true); },
         [&] { desktop->changeSession("LockedHint", false); }},
    };
    for (const auto& source : sources) {
        SCOPED_TRACE(source.name);
        user.log.clear();
        LockAttempts attempts(app, "Report");
        source.lock();
        // Retries run at the short interval while the screen stays locked.
        ASSERT_TRUE(spinUntil([&] { return attempts.count >= 3; }, 10s));
        EXPECT_TRUE(app.autoLock().screenIsLocked());
        EXPECT_EQ(user.entries("notify: "), std::vector{notice("Report")});
        // Back at the computer with little idle time, the user locks it.
        source.unlock();
        ASSERT_TRUE(spinUntil([&] { return !app.autoLockRetrying(); }, 5s));
        EXPECT_FALSE(app.autoLock().screenIsLocked());
        EXPECT_EQ(app.openItems().size(), 1u);
    }

    // Once the file closes, the next retry locks the item and says nothing more.
    user.log.clear();
    desktop->emitSession("Lock");
    ASSERT_TRUE(spinUntil([&] { return app.autoLockRetrying(); }, 5s));
    holder.reset();
    ASSERT_TRUE(spinUntil([&] { return app.openItems().empty() && !app.autoLockRetrying(); }, 10s));
    EXPECT_EQ(user.entries("notify: "), std::vector{notice("Report")});
}

TEST_F(AutoLockTest, ATriggerDuringARunningAutomaticLockIsDropped) {
    app::AppModel& app = startModel(60s);
    std::string mount = unlockItem("Ledger");
    auto holder = holding(mount + "/a.txt");
    user.log.clear();
    LockAttempts attempts(app, "Ledger");
    app::spawn(app.autoLockTriggered(Trigger::screenLocked));
    app::spawn(app.autoLockTriggered(Trigger::idle));
    ASSERT_TRUE(spinUntil([&] { return app.autoLockRetrying(); }, 10s));
    spinFor(500ms);
    EXPECT_EQ(attempts.count, 1);
    EXPECT_EQ(user.entries("notify: "), std::vector{notice("Ledger")});
}

TEST_F(AutoLockTest, SleepAndShutdownGoOnOnlyOnceTheOpenItemsAreLocked) {
    startDesktop();
    app::AppModel& app = startModel();
    waitUntilListening();
    EXPECT_TRUE(desktop->inhibitCalls().empty());  // nothing open, nothing held

    auto sleep = [&](bool starting) { desktop->emitManager("PrepareForSleep", {starting}); };
    auto shutdown = [&](bool starting) { desktop->emitManager("PrepareForShutdown", {starting}); };
    struct Case {
        const char* name;
        std::function<void()> goDown;
        std::function<void()> comeBack;
    };
    std::vector<Case> cases = {
        {"sleep", [&] { sleep(true); }, [&] { sleep(false); }},
        {"shutdown", [&] { shutdown(true); }, [&] { shutdown(false); }},
        // The sleep's own trigger is dropped while the screen lock's runs; the release waits for
        // that one.
        {"sleep as the screen locks",
         [&] {
             desktop->emitScreenSaver(kGnomeScreenSaver, true);
             ASSERT_TRUE(spinUntil([&] { return !app.activity().isIdle(); }, 5s));
             sleep(true);
         },
         [&] {
             sleep(false);
             desktop->emitScreenSaver(kGnomeScreenSaver, false);
         }},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        std::string mount = unlockItem("Trip");
        ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
        desktop->watchMount(mount);
        std::size_t released = desktop->mountedAtRelease().size();
        test.goDown();
        ASSERT_TRUE(
            spinUntil([&] { return desktop->mountedAtRelease().size() == released + 1; }, 10s));
        EXPECT_FALSE(desktop->mountedAtRelease().back());
        EXPECT_TRUE(app.openItems().empty());
        std::size_t asked = desktop->inhibitCalls().size();
        test.comeBack();
        spinFor(300ms);
        EXPECT_EQ(desktop->inhibitorsHeld(), 0);
        EXPECT_EQ(desktop->inhibitCalls().size(), asked);
    }
    EXPECT_EQ(desktop->inhibitCalls().front(),
              (QVariantList{"sleep:shutdown", "Corvane", "Locking unlocked items", "delay"}));

    // Files in use: the sleep waits for the attempt only, and after it a new lock is held.
    std::string mount = unlockItem("Trip");
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
    auto holder = holding(mount + "/a.txt");
    desktop->watchMount(mount);
    sleep(true);
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 0; }, 10s));
    EXPECT_TRUE(desktop->mountedAtRelease().back());
    EXPECT_EQ(app.openItems().size(), 1u);
    sleep(false);
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
    holder.reset();
    await(app.lockAll());
    EXPECT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 0; }, 5s));
}

TEST_F(AutoLockTest, TheStoredLimitLocksOnceTheDesktopReportsThatMuchIdleness) {
    UserSettings(root / "settings.json").setIdleMinutes(5);
    struct Idle {
        std::uint64_t mutterMilliseconds;
        std::uint32_t screenSaverSeconds;
    };
    struct Case {
        const char* name;
        DesktopStandIn::Present present;
        Idle below;
        Idle at;
    };
    std::vector<Case> cases = {
        {"Mutter", {.screenSaver = false}, {299'900, 0}, {300'000, 0}},
        {"freedesktop screen saver", {.mutter = false}, {0, 299}, {0, 300}},
        {"both, Mutter first", {}, {299'000, 400}, {300'000, 0}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        startDesktop(test.present);
        desktop->mutterIdleMilliseconds = test.below.mutterMilliseconds;
        desktop->screenSaverIdleSeconds = test.below.screenSaverSeconds;
        app::AppModel& app = startModel();
        waitUntilListening();
        unlockItem("Away");
        spinFor(500ms);
        EXPECT_TRUE(app.autoLock().idleAvailable());
        EXPECT_FALSE(settingsSayIdleUnavailable(app));
        EXPECT_EQ(app.openItems().size(), 1u);
        desktop->mutterIdleMilliseconds = test.at.mutterMilliseconds;
        desktop->screenSaverIdleSeconds = test.at.screenSaverSeconds;
        EXPECT_TRUE(spinUntil([&] { return app.openItems().empty(); }, 10s));
    }

    // Locking after idleness retries while the user stays away, and stops once they are back.
    app::AppModel& app = *model;
    std::string mount = unlockItem("Away");
    auto holder = holding(mount + "/a.txt");
    user.log.clear();
    LockAttempts attempts(app, "Away");
    desktop->mutterIdleMilliseconds = 300'000;
    ASSERT_TRUE(spinUntil([&] { return attempts.count >= 3; }, 10s));
    EXPECT_EQ(user.entries("notify: "), std::vector{notice("Away")});
    desktop->mutterIdleMilliseconds = 10'000;
    EXPECT_TRUE(spinUntil([&] { return !app.autoLockRetrying(); }, 5s));
    EXPECT_EQ(app.openItems().size(), 1u);
    holder.reset();
    await(app.lockAll());
}

TEST_F(AutoLockTest, WithoutLogindOrAScreenSaverOrWithNonsenseFromThemNothingBreaks) {
    {
        SCOPED_TRACE("no system bus, no screen saver");
        ScopedVariable noSystemBus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root / "no-bus");
        app::AppModel& app = startModel();
        unlockItem("Plain");
        spinFor(500ms);
        EXPECT_FALSE(app.autoLock().idleAvailable());
        EXPECT_TRUE(settingsSayIdleUnavailable(app));
        EXPECT_EQ(app.openItems().size(), 1u);
        await(app.lockAll());
        EXPECT_TRUE(app.openItems().empty());
    }
    {
        SCOPED_TRACE("no bus at all");
        ScopedVariable noSystemBus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root / "no-bus");
        ScopedVariable noSessionBus("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
        ScopedVariable noRuntime("XDG_RUNTIME_DIR", std::nullopt);
        int triggers = 0;
        app::AutoLock alone({[] { return true; }, [&](Trigger) { ++triggers; }},
                            UserSettings(root / "settings.json"), 50ms);
        alone.start();
        alone.setItemsOpen(true);
        alone.lockFinished();
        spinFor(300ms);
        EXPECT_FALSE(alone.idleAvailable());
        EXPECT_EQ(triggers, 0);
    }

    SCOPED_TRACE("services that answer nonsense");
    startDesktop();
    // Only GetSession("auto") answers properly.
    desktop->misbehave = [](const QDBusMessage& call) -> std::optional<QVariantList> {
        QString member = call.member();
        if (member == "GetSessionByPID") return QVariantList{42u};
        if (member == "Get") return QVariantList{true};  // not in a variant
        if (member == "GetIdletime") return QVariantList{QStringLiteral("soon")};
        if (member == "GetSessionIdleTime") return QVariantList{};
        if (member == "Inhibit") return QVariantList{QStringLiteral("descriptor")};
        return std::nullopt;
    };
    app::AppModel& app = startModel();
    waitUntilListening();
    unlockItem("Plain");
    ASSERT_TRUE(spinUntil([&] { return !desktop->inhibitCalls().empty(); }, 5s));
    user.log.clear();
    desktop->emitManager("PrepareForSleep", {QStringLiteral("yes")});
    desktop->emitManager("PrepareForShutdown", {1});
    desktop->emitScreenSaver(kGnomeScreenSaver, 42);
    desktop->emitScreenSaver(kScreenSaver, QStringLiteral("true"));
    desktop->changeSession("LockedHint", 1);
    desktop->changeSession("Active", QStringLiteral("no"));
    spinFor(500ms);
    EXPECT_EQ(app.openItems().size(), 1u);
    EXPECT_FALSE(app.autoLock().idleAvailable());
    EXPECT_FALSE(app.autoLock().screenIsLocked());
    EXPECT_EQ(desktop->inhibitorsHeld(), 0);
    EXPECT_TRUE(user.log.empty());
    // The session found through "auto" is listened to.
    EXPECT_EQ(desktop->calls("GetSession"), 1u);
    desktop->emitSession("Lock");
    EXPECT_TRUE(spinUntil([&] { return app.openItems().empty(); }, 10s));
}

TEST_F(AutoLockTest, ThreeOpenItemsLockWellWithinLogindsDelayBeforeSleep) {
    startDesktop();
    app::AppModel& app = startModel();
    waitUntilListening();
    for (const char* name : {"One", "Two", "Three"}) unlockItem(name);
    ASSERT_EQ(app.openItems().size(), 3u);
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
    QElapsedTimer timer;
    timer.start();
    desktop->emitManager("PrepareForSleep", {true});
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 0; }, 10s));
    qint64 elapsed = timer.elapsed();
    std::cout << "[ MEASURED ] three open items locked for sleep in " << elapsed << " ms\n";
    RecordProperty("sleepLockMilliseconds", static_cast<int>(elapsed));
    EXPECT_TRUE(app.openItems().empty());
    // logind lets a delay lock hold a sleep back for five seconds at most.
    EXPECT_LT(elapsed, 5000);
}

}  // namespace corvane::testing
