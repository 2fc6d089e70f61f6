// A new user's first run through the real windows: setup, then a folder dropped on the item list
// is locked, unlocked, locked again and turned back into normal files with the list's actions,
// against the real engine, gocryptfs and a private keyring.
#include <QAction>
#include <QDropEvent>
#include <QMimeData>
#include <QTreeWidget>
#include <QUrl>
#include <filesystem>

#include "AppModelFixture.h"
#include "ItemListWindow.h"
#include "SetupWindow.h"
#include "WindowSeams.h"

namespace corvane::testing {

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
