// The application model's operations against the real engine on gocryptfs and a private keyring:
// what the user is asked and told, in which order, and what is left on disk; last, a new user's
// first run through the real windows.
#include <QAction>
#include <QDropEvent>
#include <QMimeData>
#include <QTreeWidget>
#include <QUrl>
#include <filesystem>

#include "AppDelegate.h"
#include "AppModelFixture.h"
#include "ItemListWindow.h"
#include "PrivateSystemBus.h"
#include "Records/PasswordRules.h"
#include "Records/Paths.h"
#include "Records/SharedState.h"
#include "Records/SupportLock.h"
#include "Records/UserSettings.h"
#include "SetupWindow.h"
#include "WindowSeams.h"

namespace corvane::testing {

namespace {

using Kind = CorvaneCommand::Kind;

// Every entry below `path` with its contents, so that a change anywhere shows.
std::vector<std::string> tree(const std::string& path) {
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
        entries.push_back(entry.path().string() + ":" +
                          (entry.is_regular_file() ? readFile(entry.path()) : "-"));
    std::sort(entries.begin(), entries.end());
    return entries;
}

}  // namespace

TEST_F(AppModelTest, CommandsThatArriveDuringStartUpRunAfterRecoveryInArrivalOrder) {
    // A lock that crashed halfway leaves work for recovery.
    std::string crashed = folder("Crashed");
    {
        Locker locker = engine();
        locker.crashPoint = CrashPoint::lockAfterCopy;
        EXPECT_THROW(locker.lock(crashed, "password 1", 1), SimulatedCrash);
    }
    std::string first = folder("First"), second = folder("Second");
    created().handle({Kind::lock, {first}});
    model->handle({Kind::lock, {second}});
    EXPECT_TRUE(user.log.empty());
    ASSERT_TRUE(model->start());
    EXPECT_FALSE(model->isReady());
    settle();
    ASSERT_TRUE(spinUntil([&] { return model->rows().size() == 2; }));
    EXPECT_EQ(model->rows()[0].name, "First");
    EXPECT_EQ(model->rows()[1].name, "Second");

    // Recovery's notice comes first.
    EXPECT_TRUE(user.log.front().starts_with("notify: ")) << user.log.front();
    auto progress = user.entries("progress: ");
    progress.resize(6);
    EXPECT_EQ(progress, (std::vector<std::string>{
                            "progress: Getting First ready…", "progress: Encrypting First…",
                            "progress: Checking every file in First…",
                            "progress: Removing the unlocked original…", "progress: Finishing up…",
                            "progress: Getting Second ready…"}));
    EXPECT_TRUE(model->requestArrived());
    EXPECT_TRUE(std::filesystem::exists(crashed + "/a.txt"));
}

TEST_F(AppModelTest, WaitersResumeOnceInOrderWhenTheLastOperationEnds) {
    app::AppModel& app = started();
    std::vector<int> resumed;
    auto waiter = [](app::AppModel& app, std::vector<int>& resumed, int id) -> app::Task<> {
        co_await app.waitUntilIdle();
        resumed.push_back(id);
    };
    // Nothing runs: the wait is over before spawn returns.
    app::spawn(waiter(app, resumed, 0));
    EXPECT_EQ(resumed, std::vector<int>{0});

    bool locked = false;
    app::spawn([](app::AppModel& app, std::string path, bool& locked) -> app::Task<> {
        co_await app.lock(path);
        locked = true;
    }(app, folder("Busy"), locked));
    ASSERT_FALSE(app.activity().isIdle());
    app::spawn(waiter(app, resumed, 1));
    app::spawn(waiter(app, resumed, 2));
    ASSERT_TRUE(spinUntil([&] { return resumed.size() == 3; }));
    EXPECT_EQ(resumed, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(app.activity().isIdle());
    spinUntil([&] { return locked; });
    QCoreApplication::processEvents();
    EXPECT_EQ(resumed.size(), 3u);
}

TEST_F(AppModelTest, UnlockTriesEarlierPasswordsBeforeAskingForTheItemsOwn) {
    app::AppModel& app = started();
    std::string locked = lockedItem("Old");
    StoredSecret changed = StoredSecret{"password 1", 1, std::nullopt, {}}.changing("password 2");
    std::string mine =
        "password: Enter your Corvane password | Corvane needs your password to "
        "unlock Old";
    std::string differs =
        "password: This item uses a different password | Enter the password it was locked with.";
    // The keyring's record, what the user types, the prompts they see, whether the item opens.
    const std::tuple<const char*, StoredSecret, std::deque<std::optional<std::string>>,
                     std::vector<std::string>, bool>
        cases[] = {
            {"the earlier password is still kept", changed, {"password 2"}, {mine}, true},
            {"only the user knows it",
             {"password 3", 3, std::nullopt, {}},
             {"wrong", "password 3", "wrong again", "password 1"},
             {mine,
              "password: Enter your Corvane password | That password did not work. Try again.",
              differs, differs},
             true},
            {"the user gives up",
             {"password 3", 3, std::nullopt, {}},
             {"password 3", std::nullopt},
             {mine, differs},
             false},
        };
    for (const auto& [name, record, typed, prompts, opens] : cases) {
        SCOPED_TRACE(name);
        store.save(record);
        user.log.clear();
        user.passwords = typed;
        await(app.unlock(locked));
        EXPECT_EQ(user.entries("password: "), prompts);
        EXPECT_TRUE(user.entries("choose: ").empty());
        ASSERT_EQ(app.openItems().size(), opens ? 1u : 0u);
        if (!opens) continue;
        EXPECT_EQ(user.entries("open: "), std::vector{"open: " + app.openItems()[0].mountPoint});
        EXPECT_EQ(readFile(app.openItems()[0].mountPoint + "/a.txt"), "alpha of Old");
        auto state = SharedState::read(root / "Runtime/state.json");
        ASSERT_TRUE(state);
        EXPECT_EQ(state->unlockedPaths, std::vector{canonicalPath(locked)});
        await(app.lockNow(locked));
        EXPECT_TRUE(app.openItems().empty());
        EXPECT_TRUE(SharedState::read(root / "Runtime/state.json")->unlockedPaths.empty());
    }
}

TEST_F(AppModelTest, ForgetDeletesNothingAndLocateListsTheItemAgain) {
    app::AppModel& app = started();
    std::string locked = lockedItem("Kept");
    app::ItemRow row = app.rows().at(0);
    auto before = tree(root / "Home");

    user.buttons = {"Cancel"};
    await(app.forget(row));
    EXPECT_EQ(app.rows().size(), 1u);

    // Moved away, the item cannot be found; locating it puts it back in its row.
    std::string moved = root / "Kept.corvlock";
    std::filesystem::rename(locked, moved);
    await(app.refresh());
    ASSERT_EQ(app.rows().size(), 1u);
    EXPECT_FALSE(app.rows()[0].url);
    user.log.clear();
    user.lockedItem = root / "Home";  // not a locked item
    user.buttons = {"OK"};
    await(app.locate(app.rows()[0]));
    EXPECT_EQ(user.entries("choose: "),
              std::vector<std::string>{"choose: Could not find Kept | " +
                                       CorvaneError::notLocked().errorDescription()});
    user.lockedItem = moved;
    await(app.locate(app.rows()[0]));
    ASSERT_TRUE(app.rows()[0].url);
    EXPECT_EQ(*app.rows()[0].url, moved);
    EXPECT_EQ(app.rows()[0].id, row.id);
    std::filesystem::rename(moved, locked);
    await(app.refresh());

    user.buttons = {"Forget"};
    await(app.forget(app.rows()[0]));
    EXPECT_TRUE(app.rows().empty());
    EXPECT_EQ(tree(root / "Home"), before);
}

TEST_F(AppModelTest, AQuitWaitsForRunningWorkOrIsCancelledAndAFileInUseKeepsItsItemOpen) {
    app::AppModel& app = started();
    app::AppDelegate delegate(app, user);
    EXPECT_TRUE(await(delegate.shouldQuit()));  // nothing open, nothing runs
    for (const char* answer : {"Cancel", "Quit When Finished"}) {
        SCOPED_TRACE(answer);
        std::string original = folder(std::string("Busy ") + answer);
        app::spawn(app.lock(original));
        ASSERT_FALSE(app.activity().isIdle());
        user.log.clear();
        user.buttons = {answer};
        bool quits = await(delegate.shouldQuit());
        EXPECT_EQ(user.entries("choose: "),
                  std::vector<std::string>{"choose: Corvane is still locking Busy " +
                                           std::string(answer) +
                                           ". Quit when it finishes? | Corvane quits as soon as "
                                           "it is done."});
        EXPECT_EQ(quits, answer != std::string("Cancel"));
        // Quitting waited for the lock to finish.
        EXPECT_FALSE(quits && std::filesystem::exists(original));
        ASSERT_TRUE(spinUntil([&] { return app.activity().isIdle(); }));
        EXPECT_FALSE(app.activity().isQuitting);
    }

    std::string locked = lockedItem("Report");
    unlock(locked);
    ASSERT_EQ(app.openItems().size(), 1u);
    std::string mount = app.openItems()[0].mountPoint;
    auto holder = holding(mount + "/a.txt");

    user.log.clear();
    user.buttons = {"Cancel", "Cancel"};
    EXPECT_FALSE(await(delegate.shouldQuit()));
    std::vector<std::string> questions = user.entries("choose: ");
    ASSERT_EQ(questions.size(), 2u);
    EXPECT_TRUE(questions[0].starts_with("choose: Report is still in use | Files are open in "))
        << questions[0];
    EXPECT_TRUE(questions[0].ends_with(
        ". Close them, then try again. Force Lock closes them without saving, so unsaved "
        "changes in open apps will be lost."));
    EXPECT_EQ(questions[1],
              "choose: Some items are still unlocked | They stay unlocked until you lock them "
              "or restart your computer.");
    EXPECT_EQ(app.openItems().size(), 1u);
    EXPECT_EQ(readFile(mount + "/a.txt"), "alpha of Report");

    // "Try Again" once the file is closed locks it, and quitting needs nothing more.
    user.buttons = {"Try Again"};
    user.whenAsked = [&] { holder.reset(); };
    await(app.lockNow(locked));
    EXPECT_TRUE(app.openItems().empty());
    EXPECT_TRUE(await(delegate.shouldQuit()));
}

TEST_F(AppModelTest, PasswordChangeRefusalsComeBeforeAnythingIsSaved) {
    app::AppModel& app = started();
    std::string locked = lockedItem("Moved");
    EXPECT_EQ(await(app.changePassword("password 1", "short")), PasswordRules::problem("short"));
    EXPECT_EQ(await(app.changePassword("not it", "password 2")),
              "Your current password is not correct.");
    EXPECT_EQ(store.load()->generation, 1);
    // An open item refuses it before the keyring is touched.
    unlock(locked);
    ASSERT_EQ(app.openItems().size(), 1u);
    EXPECT_EQ(await(app.changePassword("password 1", "password 2")),
              "Lock every unlocked item first.");
    EXPECT_EQ(store.load()->password, "password 1");
    await(app.lockNow(locked));
    // While something runs, the change waits for nothing: it is refused.
    app::spawn(app.lock(folder("Busy")));
    auto refusal = await(app.changePassword("password 1", "password 2"));
    EXPECT_EQ(refusal, app.activity().passwordChangeRefusal());
    ASSERT_TRUE(refusal);
    ASSERT_TRUE(spinUntil([&] { return app.activity().isIdle(); }));

    EXPECT_EQ(await(app.changePassword("password 1", "password 2")), std::nullopt);
    EXPECT_FALSE(app.changingPassword());
    StoredSecret now = *store.load();
    EXPECT_EQ(now.password, "password 2");
    EXPECT_EQ(now.generation, 2);
    EXPECT_FALSE(now.previous);
    for (const auto& row : app.rows()) EXPECT_FALSE(row.needsPasswordUpdate) << row.name;
    unlock(locked, "password 2");
    EXPECT_EQ(app.openItems().size(), 1u);
    EXPECT_TRUE(user.entries("password: This item").empty());
}

TEST_F(AppModelTest, ACancelledLockAndRemovingTheLockBothLeaveTheFilesAsTheyWere) {
    app::AppModel& app = started();
    std::string original = folder("Papers");
    auto before = tree(original);
    // Cancelled from the progress window as soon as it shows: one prompt says so.
    user.buttons = {"OK"};
    app::spawn(app.lock(original));
    ASSERT_TRUE(user.onCancel);
    user.onCancel();
    ASSERT_TRUE(spinUntil([&] { return app.activity().isIdle(); }));
    EXPECT_EQ(user.entries("choose: "),
              std::vector<std::string>{"choose: Could not lock Papers | " +
                                       CorvaneError::cancelled().errorDescription()});
    EXPECT_EQ(tree(original), before);
    EXPECT_TRUE(app.rows().empty());

    await(app.lock(original));
    std::string locked = *app.rows().at(0).url;
    user.log.clear();
    user.buttons = {"Cancel"};
    await(app.removeLock(locked));
    EXPECT_TRUE(std::filesystem::exists(locked));
    EXPECT_TRUE(user.entries("password: ").empty());

    user.log.clear();
    user.buttons = {"Remove Lock"};
    user.passwords = {"password 1"};
    await(app.removeLock(locked));
    EXPECT_EQ(user.entries("choose: "),
              std::vector<std::string>{"choose: Remove the lock from Papers? | Papers turns back "
                                       "into normal files that anyone using this computer can "
                                       "open."});
    EXPECT_EQ(user.entries("progress: ").front(), "progress: Removing the lock from Papers");
    EXPECT_EQ(user.log.back(), "progress closed");
    EXPECT_FALSE(std::filesystem::exists(locked));
    EXPECT_EQ(tree(original), before);
    EXPECT_TRUE(app.rows().empty());
}

TEST_F(AppModelTest, StartUpNeedsTheSupportLock) {
    auto other = SupportLock::acquire(root / "Support");
    ASSERT_TRUE(other);
    EXPECT_FALSE(created().start());
    QCoreApplication::processEvents();
    EXPECT_TRUE(user.log.empty());
    EXPECT_FALSE(model->isReady());
}

TEST_F(AppModelTest, AFingerprintStandsInForTheTypedPasswordUnlessItFailsOrIsSwitchedOff) {
    app::AppModel& app = started();
    std::string locked = lockedItem("Secret");
    // The reader's behaviour, whether the setting is on, whether each is asked for.
    const std::tuple<const char*, bool, bool, bool> cases[] = {{"match", true, true, false},
                                                               {"no-match", true, true, true},
                                                               {"match", false, false, true},
                                                               {"no-reader", true, false, true}};
    for (const auto& [scenario, enabled, asksFinger, asksPassword] : cases) {
        SCOPED_TRACE(std::string(scenario) + (enabled ? "" : ", switched off"));
        PrivateSystemBus reader(scenario);
        // Switched as `corvane config` does, from another process, while the model runs.
        UserSettings(configuration().settingsPath).setTouchIDEnabled(enabled);
        user.log.clear();
        if (asksPassword) user.passwords = {"password 1"};
        await(app.unlock(locked));
        EXPECT_EQ(user.entries("fingerprint: ").size(), asksFinger ? 1u : 0u);
        EXPECT_EQ(user.entries("password: ").size(), asksPassword ? 1u : 0u);
        ASSERT_EQ(app.openItems().size(), 1u);
        await(app.lockNow(locked));
    }
}

TEST_F(AppModelTest, AReaderStillWaitingWhenTheModelGoesReportsToNobody) {
    auto settings = configuration();
    settings.fingerprintTimeout = std::chrono::seconds(1);
    started(settings);
    std::string locked = lockedItem("Secret");
    PrivateSystemBus reader("silent");
    app::spawn(model->unlock(locked));
    ASSERT_TRUE(spinUntil([&] { return !user.entries("fingerprint: ").empty(); }));
    model.reset();
    // Past the reader's time limit: its answer must not reach the model that has gone.
    spinFor(std::chrono::milliseconds(1500));
}

TEST_F(AppModelTest, StartUpMovesItemsLeftBehindByAPasswordChange) {
    engine().lock(folder("Behind"), "password 1", 1);
    StoredSecret changed = store.load()->changing("password 2");
    store.save(changed);
    app::AppModel& app = started();
    ASSERT_EQ(app.rows().size(), 1u);
    EXPECT_FALSE(app.rows()[0].needsPasswordUpdate);
    EXPECT_EQ(*store.load(), changed.migrated());
    EXPECT_TRUE(user.entries("notify: ").empty());
    unlock(*app.rows()[0].url, "password 2");
    EXPECT_EQ(app.openItems().size(), 1u);
    EXPECT_TRUE(user.entries("password: This item").empty());
}

// Setup, then a folder dropped on the item list is locked, unlocked, locked again and turned back
// into normal files with the list's actions.
TEST_F(AppModelTest, ANewUserSetsUpThenLocksUnlocksAndRemovesTheLockFromTheItemList) {
    service += ":first run";
    store = PasswordStore(service);
    app::AppModel& app = started();
    ASSERT_TRUE(app.needsSetup());

    app::SetupWindow setup(app::WindowSeams::setup(app));
    bool finished = false;
    QObject::connect(&setup, &app::SetupWindow::finished, [&] { finished = true; });
    setup.advance();
    setup.setPasswordFields("correct horse 1", "correct horse 1", true);
    while (!finished && setup.step() != app::SetupWindow::done) setup.advance();
    EXPECT_FALSE(store.load()) << "saved before the last step";
    setup.advance();
    ASSERT_TRUE(finished) << setup.error().toStdString();
    EXPECT_FALSE(app.needsSetup());
    EXPECT_EQ(store.load()->password, "correct horse 1");
    EXPECT_EQ(store.load()->generation, 1);
    // As chosen, though no reader is there today: one added later is used.
    EXPECT_TRUE(UserSettings(root / "settings.json").touchIDEnabled());

    app::ItemListWindow list;
    list.connectToModel(app);
    auto* rows = list.findChild<QTreeWidget*>();
    ASSERT_TRUE(rows);
    // Triggers the list's action on its only row, then lets the model work until `done`.
    auto act = [&](const char* name, auto done) {
        rows->setCurrentItem(rows->topLevelItem(0));
        auto* action = list.findChild<QAction*>(name);
        ASSERT_TRUE(action && action->isEnabled()) << name;
        action->trigger();
        ASSERT_TRUE(spinUntil([&] { return done() && app.activity().isIdle(); })) << name;
        QCoreApplication::processEvents();
    };

    std::string original = folder("Holiday");
    auto before = readFile(original + "/inner/b.txt");
    QMimeData dropped;
    dropped.setUrls({QUrl::fromLocalFile(QString::fromStdString(original))});
    int requested = 0;
    QObject::connect(&list, &app::ItemListWindow::lockRequested, [&] { ++requested; });
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &dropped, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(&list, &enter);
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &dropped, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(&list, &drop);
    ASSERT_EQ(requested, 1);
    ASSERT_TRUE(
        spinUntil([&] { return rows->topLevelItemCount() == 1; }, std::chrono::seconds(20)));
    ASSERT_TRUE(spinUntil([&] { return app.activity().isIdle(); }));
    EXPECT_FALSE(std::filesystem::exists(original));
    EXPECT_EQ(rows->topLevelItem(0)->text(app::ItemListWindow::statusColumn), "Locked");

    user.passwords = {"correct horse 1"};
    act("unlock", [&] { return app.openItems().size() == 1; });
    EXPECT_TRUE(readFile(app.openItems()[0].mountPoint + "/inner/b.txt") == before);
    EXPECT_EQ(rows->topLevelItem(0)->text(app::ItemListWindow::statusColumn), "Unlocked");

    act("lockNow", [&] { return app.openItems().empty(); });

    user.buttons = {"Remove Lock"};
    user.passwords = {"correct horse 1"};
    act("removeLock", [&] { return app.rows().empty(); });
    EXPECT_TRUE(readFile(original + "/inner/b.txt") == before);
    EXPECT_EQ(rows->topLevelItemCount(), 0);
    EXPECT_TRUE(user.entries("choose: Could not").empty());
}

}  // namespace corvane::testing
