// Auto-lock against the real engine on gocryptfs: a stand-in logind and screen savers on private
// buses send what a desktop would, and the model locks, reports files in use once, retries, and
// lets a sleep go on only when its items are locked.
#include <QElapsedTimer>
#include <QLabel>
#include <atomic>
#include <iostream>
#include <thread>

#include "AppModelFixture.h"
#include "DesktopStandIn.h"
#include "FileSystem/GocryptfsTool.h"
#include "PrivateBus.h"
#include "Records/IdlePolicy.h"
#include "SettingsWindow.h"
#include "WindowSeams.h"
#include "X11Idle.h"
#include "DaemonProcess.h"

namespace corvane::testing {

namespace {

using namespace std::chrono_literals;
using Trigger = app::AutoLock::Trigger;

const QString kGnome = QStringLiteral("org.gnome.ScreenSaver");
const QString kFreedesktop = QStringLiteral("org.freedesktop.ScreenSaver");

std::string notice(const std::string& name) {
    return "notify: Corvane could not lock " + name +
           " | Files are still open in another app. Close them and Corvane will lock "
           "automatically.";
}

// How many times the model began to lock the item NAME.
struct LockAttempts {
    LockAttempts(app::AppModel& model, const std::string& name) {
        QObject::connect(&model, &app::AppModel::activityChanged, &context,
                         [this, &model, label = "locking " + name] {
                             auto now = model.activity().descriptions();
                             bool locking = std::count(now.begin(), now.end(), label) > 0;
                             count += locking && !locking_;
                             locking_ = locking;
                         });
    }
    QObject context;
    int count = 0;
    bool locking_ = false;
};

// Whether the settings, filled as the application fills them, say idleness cannot lock here.
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
    const std::tuple<double, int, bool, bool> cases[] = {{900, 15, true, true},
                                                         {899.9, 15, true, false},
                                                         {1e9, 0, true, false},
                                                         {900, 15, false, false},
                                                         {300, 5, true, true}};
    for (const auto& [seconds, minutes, open, locks] : cases)
        EXPECT_EQ(IdlePolicy::shouldLock(seconds, minutes, open), locks)
            << seconds << " s, " << minutes << " min, open: " << open;
}

// The X server's own idle time, from a real Xvfb: counted in milliseconds, given in seconds, and
// not asked in a Wayland session, whose X server sees only its own clients' input.
TEST(X11IdleTest, AnXServerGivesItsIdleTimeInSecondsOutsideWayland) {
    TempDir logs;
    testing::DaemonProcess server({"Xvfb", "-displayfd", "1", "-nolisten", "tcp"},
                                  logs / "xvfb.log");
    ScopedVariable display("DISPLAY", ":" + server.readLine());
    ScopedVariable notWayland("WAYLAND_DISPLAY", std::nullopt);
    std::this_thread::sleep_for(1500ms);
    auto seconds = app::X11Idle::seconds();
    ASSERT_TRUE(seconds);
    EXPECT_GE(*seconds, 1.0);
    EXPECT_LT(*seconds, 60.0);
    ScopedVariable wayland("WAYLAND_DISPLAY", "wayland-0");
    EXPECT_EQ(app::X11Idle::seconds(), std::nullopt);
}

// gocryptfs whose new images come only once `go` is set, so that a lock can be held in the
// worker as a long copy holds it.
struct SlowToCreate : GocryptfsTool {
    std::atomic<bool> go{true};
    void create(const std::string& image, const std::string& volumeName,
                const std::string& password) const override {
        while (!go) std::this_thread::sleep_for(10ms);
        GocryptfsTool::create(image, volumeName, password);
    }
};

class AutoLockTest : public AppModelTest {
protected:
    // The model with retries and idle checks a few times a second, once start-up is over.
    app::AppModel& startModel() {
        auto settings = configuration();
        settings.tool = tool;
        settings.autoLockRetryInterval = 300ms;
        settings.idleCheckInterval = 100ms;
        return started(settings);
    }

    std::shared_ptr<SlowToCreate> tool = std::make_shared<SlowToCreate>();

    // The stand-ins, then the model; returns once auto-lock has found the session and asked for
    // the idle time, so that every signal it listens to reaches it.
    app::AppModel& startWithDesktop(DesktopStandIn::Present present = {}) {
        desktop.reset();
        desktop = std::make_unique<DesktopStandIn>(
            loginBus.address(), std::getenv("DBUS_SESSION_BUS_ADDRESS"), present);
        app::AppModel& app = startModel();
        EXPECT_TRUE(spinUntil([&] {
            return desktop->calls("Get") > 0 &&
                   desktop->calls("GetIdletime") + desktop->calls("GetSessionIdleTime") > 0;
        }));
        return app;
    }

    // Unlocks the item NAME, made from a new folder the first time; its mount point.
    std::string unlockItem(const std::string& name) {
        std::string item = root / ("Home/" + name + ".corvlock");
        if (!std::filesystem::exists(item)) lockedItem(name);
        unlock(item);
        for (const auto& item : model->openItems())
            if (item.name == name) return item.mountPoint;
        ADD_FAILURE() << name << " did not open";
        return {};
    }

    PrivateBus loginBus;
    ScopedVariable loginAddress{"DBUS_SYSTEM_BUS_ADDRESS", loginBus.address()};
    std::unique_ptr<DesktopStandIn> desktop;
};

TEST_F(AutoLockTest, ScreenLocksLockItemsAndFilesInUseAreReportedOnceThenRetriedWhileAway) {
    app::AppModel& app = startWithDesktop();
    desktop->mutterIdleMilliseconds = 2'000;
    LockAttempts anything(app, "Report");
    desktop->emitScreenSaver(kGnome, true, false);  // only blanks: locking is switched off
    spinFor(300ms);
    EXPECT_FALSE(app.autoLock().screenIsLocked());
    desktop->emitScreenSaver(kGnome, true);
    spinFor(300ms);
    EXPECT_TRUE(app.autoLock().screenIsLocked());
    EXPECT_EQ(anything.count, 0);  // nothing open
    desktop->emitScreenSaver(kGnome, false);

    std::string mount = unlockItem("Report");
    auto holder = holding(mount + "/a.txt");
    // A second trigger while the first runs is dropped, not run after it.
    app::spawn(app.autoLockTriggered(Trigger::screenLocked));
    app::spawn(app.autoLockTriggered(Trigger::idle));
    ASSERT_TRUE(spinUntil([&] { return !user.entries("notify: ").empty(); }));
    ASSERT_TRUE(spinUntil([&] { return app.activity().isIdle() && !app.autoLockRetrying(); }));
    spinFor(300ms);
    EXPECT_EQ(user.entries("notify: "), std::vector{notice("Report")});

    const std::pair<const char*, std::function<void(bool)>> sources[] = {
        {"GNOME Shell", [&](bool on) { desktop->emitScreenSaver(kGnome, on); }},
        {"freedesktop", [&](bool on) { desktop->emitScreenSaver(kFreedesktop, on); }},
        {"logind", [&](bool on) { desktop->emitSession(on ? "Lock" : "Unlock"); }},
        {"LockedHint", [&](bool on) { desktop->changeSession("LockedHint", on); }},
    };
    for (const auto& [name, lock] : sources) {
        SCOPED_TRACE(name);
        user.log.clear();
        LockAttempts attempts(app, "Report");
        lock(true);
        // Retries at the short interval while the screen stays locked, reporting nothing more.
        ASSERT_TRUE(spinUntil([&] { return attempts.count >= 2; }, 10s));
        EXPECT_EQ(user.entries("notify: "), std::vector{notice("Report")});
        // Back, with little idle time, the user locks it.
        lock(false);
        ASSERT_TRUE(spinUntil([&] { return !app.autoLockRetrying(); }, 5s));
        EXPECT_FALSE(app.autoLock().screenIsLocked());
        EXPECT_EQ(app.openItems().size(), 1u);
    }

    // Once the file closes, the next retry locks the item.
    desktop->emitSession("Lock");
    ASSERT_TRUE(spinUntil([&] { return app.autoLockRetrying(); }, 5s));
    holder.reset();
    EXPECT_TRUE(spinUntil([&] { return app.openItems().empty() && !app.autoLockRetrying(); }));
}

TEST_F(AutoLockTest, SleepAndShutdownGoOnOnlyOnceTheOpenItemsAreLocked) {
    app::AppModel& app = startWithDesktop();
    EXPECT_EQ(desktop->calls("Inhibit"), 0u);  // nothing open, nothing held
    auto sleep = [&](bool on) { desktop->emitManager("PrepareForSleep", on); };
    auto shutdown = [&](bool on) { desktop->emitManager("PrepareForShutdown", on); };
    // While the screen lock's quiet lock runs, the sleep runs its own beside it.
    auto lockThenSleep = [&](bool on) {
        desktop->emitScreenSaver(kGnome, on);
        EXPECT_TRUE(!on || spinUntil([&] { return !app.activity().isIdle(); }, 5s));
        sleep(on);
    };
    const std::tuple<const char*, std::function<void(bool)>, std::vector<std::string>> cases[] = {
        {"sleep", sleep, {"One", "Two", "Three"}},
        {"shutdown", shutdown, {"One"}},
        {"sleep as the screen locks", lockThenSleep, {"One"}}};
    for (const auto& [name, goDown, items] : cases) {
        SCOPED_TRACE(name);
        for (const auto& item : items) desktop->watchMount(unlockItem(item));
        ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
        QElapsedTimer timer;
        timer.start();
        goDown(true);
        ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 0; }, 10s));
        std::cout << "[ MEASURED ] " << name << ": " << items.size() << " open items locked in "
                  << timer.elapsed() << " ms\n";
        EXPECT_LT(timer.elapsed(), 5000);  // logind's longest delay
        EXPECT_FALSE(desktop->mountedAtRelease().back());
        EXPECT_TRUE(app.openItems().empty());
        std::size_t asked = desktop->calls("Inhibit");
        goDown(false);
        spinFor(300ms);
        EXPECT_EQ(desktop->calls("Inhibit"), asked);  // nothing open after resuming
    }
    EXPECT_EQ(desktop->lastInhibit(),
              (QVariantList{"sleep:shutdown", "Corvane", "Locking unlocked items", "delay"}));

    // Files in use: the sleep waits for the attempt only; after it a new lock is held.
    std::string mount = unlockItem("Trip");
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
    auto holder = holding(mount + "/a.txt");
    sleep(true);
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 0; }, 10s));
    EXPECT_EQ(app.openItems().size(), 1u);
    sleep(false);
    EXPECT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
    holder.reset();
    await(app.lockAll());
    EXPECT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 0; }, 5s));

    // A lock that holds the worker (its image is slow to come) does not hold up the sleep's.
    unlockItem("Trip");
    ASSERT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 1; }, 5s));
    tool->go = false;
    bool locked = false;
    app::spawn([](app::AppModel& app, std::string path, bool& locked) -> app::Task<> {
        co_await app.lock(path);
        locked = true;
    }(app, folder("Slow"), locked));
    ASSERT_TRUE(spinUntil([&] { return !app.activity().isIdle(); }, 5s));
    sleep(true);
    EXPECT_TRUE(spinUntil([&] { return desktop->inhibitorsHeld() == 0; }, 5s));
    EXPECT_TRUE(app.openItems().empty());
    EXPECT_FALSE(locked);
    tool->go = true;
    EXPECT_TRUE(spinUntil([&] { return locked; }, 30s));
    sleep(false);
}

TEST_F(AutoLockTest, TheStoredLimitLocksOnceTheDesktopReportsThatMuchIdleness) {
    UserSettings(root / "settings.json").setIdleMinutes(5);
    // Idle time as Mutter (milliseconds) and the screen saver (seconds) report it.
    using Idle = std::pair<std::uint64_t, std::uint32_t>;
    const std::tuple<const char*, DesktopStandIn::Present, Idle, Idle> cases[] = {
        {"Mutter", {.screenSaver = false}, {299'900, 0}, {300'000, 0}},
        {"freedesktop", {.mutter = false}, {0, 299}, {0, 300}},
        {"Mutter first", {}, {299'000, 400}, {300'000, 0}}};
    for (const auto& [name, present, below, at] : cases) {
        SCOPED_TRACE(name);
        app::AppModel& app = startWithDesktop(present);
        desktop->mutterIdleMilliseconds = below.first;
        desktop->screenSaverIdleSeconds = below.second;
        unlockItem("Away");
        spinFor(500ms);
        EXPECT_TRUE(app.autoLock().idleAvailable());
        EXPECT_FALSE(settingsSayIdleUnavailable(app));
        EXPECT_EQ(app.openItems().size(), 1u);
        desktop->mutterIdleMilliseconds = at.first;
        desktop->screenSaverIdleSeconds = at.second;
        EXPECT_TRUE(spinUntil([&] { return app.openItems().empty(); }, 10s));
        // Opened again while the user is still away: the next check locks it too.
        unlockItem("Away");
        EXPECT_TRUE(spinUntil([&] { return app.openItems().empty(); }, 10s));
    }

    // Retries go on while the user stays away and end when they are back.
    auto holder = holding(unlockItem("Away") + "/a.txt");
    LockAttempts attempts(*model, "Away");
    desktop->mutterIdleMilliseconds = 300'000;
    ASSERT_TRUE(spinUntil([&] { return attempts.count >= 3; }, 10s));
    desktop->mutterIdleMilliseconds = 10'000;
    EXPECT_TRUE(spinUntil([&] { return !model->autoLockRetrying(); }, 5s));
    EXPECT_EQ(model->openItems().size(), 1u);
    holder.reset();
    await(model->lockAll());
}

TEST_F(AutoLockTest, WithoutLogindOrScreenSaverOrWithNonsenseFromThemNothingBreaks) {
    {
        ScopedVariable noSystemBus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root / "no-bus");
        app::AppModel& app = startModel();
        unlockItem("Plain");
        spinFor(500ms);
        EXPECT_FALSE(app.autoLock().idleAvailable());
        EXPECT_TRUE(settingsSayIdleUnavailable(app));
        EXPECT_EQ(app.openItems().size(), 1u);
        await(app.lockAll());
    }

    // Only GetSession("auto") answers properly.
    desktop = std::make_unique<DesktopStandIn>(
        loginBus.address(), std::getenv("DBUS_SESSION_BUS_ADDRESS"), DesktopStandIn::Present{});
    desktop->misbehave = [](const QDBusMessage& call) -> std::optional<QVariantList> {
        QString member = call.member();
        if (member == "GetSessionByPID") return QVariantList{42u};
        if (member == "Get") return QVariantList{true};  // not in a variant
        if (member == "GetIdletime") return QVariantList{"soon"};
        if (member == "GetSessionIdleTime") return QVariantList{};
        if (member == "Inhibit") return QVariantList{"descriptor"};
        return std::nullopt;
    };
    app::AppModel& app = startModel();
    unlockItem("Plain");
    ASSERT_TRUE(spinUntil([&] { return desktop->calls("Inhibit") && desktop->calls("Get"); }));
    user.log.clear();
    desktop->emitManager("PrepareForSleep", "yes");
    desktop->emitManager("PrepareForShutdown", 1);
    desktop->emitScreenSaver(kGnome, 42);
    desktop->emitScreenSaver(kFreedesktop, "true");
    desktop->changeSession("LockedHint", 1);
    desktop->changeSession("Active", "no");
    spinFor(500ms);
    EXPECT_EQ(app.openItems().size(), 1u);
    EXPECT_FALSE(app.autoLock().idleAvailable());
    EXPECT_FALSE(app.autoLock().screenIsLocked());
    EXPECT_EQ(desktop->inhibitorsHeld(), 0);
    EXPECT_TRUE(user.log.empty());
    desktop->emitSession("Lock");  // the session found through "auto"
    EXPECT_TRUE(spinUntil([&] { return app.openItems().empty(); }, 10s));
}

}  // namespace corvane::testing
