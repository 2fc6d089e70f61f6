// The item list window on its own: what it shows for each row, which actions each state allows,
// what the actions, a double-click and a drop ask for, and the selection across updates.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QMouseEvent>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QUrl>

#include "ItemListWindow.h"

namespace corvane::app {
namespace {

enum State { locked, open, missing };

ItemRow makeRow(const std::string& name, State state, bool needsPasswordUpdate = false,
                std::optional<std::int64_t> size = std::nullopt) {
    ItemRow row;
    row.id = Uuid::random();
    row.name = name;
    row.location = "/home/ana/Documents";
    if (state != missing) row.url = "/home/ana/Documents/" + name + ".corvlock";
    row.isOpen = state == open;
    row.needsPasswordUpdate = needsPasswordUpdate;
    row.size = size;
    return row;
}

// Every request the window makes, as "signal argument".
struct Requests {
    std::vector<std::string> log;

    explicit Requests(ItemListWindow& window) {
        auto path = [this](const char* what) {
            return [this, what](const std::string& path) { log.push_back(what + (" " + path)); };
        };
        auto row = [this](const char* what) {
            return [this, what](const ItemRow& row) { log.push_back(what + (" " + row.name)); };
        };
        QObject::connect(&window, &ItemListWindow::unlockRequested, path("unlock"));
        QObject::connect(&window, &ItemListWindow::lockNowRequested, path("lockNow"));
        QObject::connect(&window, &ItemListWindow::revealRequested, path("reveal"));
        QObject::connect(&window, &ItemListWindow::removeLockRequested, path("removeLock"));
        QObject::connect(&window, &ItemListWindow::forgetRequested, row("forget"));
        QObject::connect(&window, &ItemListWindow::locateRequested, row("locate"));
        QObject::connect(&window, &ItemListWindow::chooseAndLockRequested,
                         [this] { log.push_back("chooseAndLock"); });
        QObject::connect(&window, &ItemListWindow::lockRequested,
                         [this](const std::vector<std::string>& paths) {
                             for (auto& path : paths) log.push_back("lock " + path);
                         });
    }
};

QTreeWidget* list(ItemListWindow& window) {
    return window.findChild<QTreeWidget*>("items");
}
QAction* action(ItemListWindow& window, const char* name) {
    return window.findChild<QAction*>(name);
}
void select(ItemListWindow& window, int index) {
    list(window)->setCurrentItem(list(window)->topLevelItem(index));
}

TEST(ItemListWindowTests, ShowsEachRowsNameLocationSizeAndStatus) {
    struct Case {
        ItemRow row;
        QString name, size, status;
    };
    std::vector<Case> cases = {
        {makeRow("Report", open, false, 1'234'567), "Report", "1.2 MB", "Unlocked"},
        {makeRow("Taxes", locked, false, 999), "Taxes", "999 bytes", "Locked"},
        {makeRow("Old", missing), "Old", "", "Can't find this item"},
        {makeRow("Plans", locked, true, 0), "Plans", "0 bytes", "Locked · Needs password update"},
        {makeRow("Lost", missing, true), "Lost", "",
         "Can't find this item · Needs password update"},
        {makeRow("Rapport \xc3\xa9t\xc3\xa9", locked), QString::fromUtf8("Rapport été"), "",
         "Locked"},
    };
    std::vector<ItemRow> rows;
    for (auto& c : cases) rows.push_back(c.row);
    ItemListWindow window;
    window.setRows(rows);

    ASSERT_EQ(list(window)->topLevelItemCount(), static_cast<int>(cases.size()));
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto* item = list(window)->topLevelItem(static_cast<int>(i));
        SCOPED_TRACE(cases[i].row.name);
        EXPECT_EQ(item->text(ItemListWindow::nameColumn), cases[i].name);
        EXPECT_EQ(item->text(ItemListWindow::locationColumn), "/home/ana/Documents");
        EXPECT_EQ(item->text(ItemListWindow::sizeColumn), cases[i].size);
        EXPECT_EQ(item->text(ItemListWindow::statusColumn), cases[i].status);
    }
}

TEST(ItemListWindowTests, EmptyListShowsHowToLockInstead) {
    ItemListWindow window;
    auto* pages = window.findChild<QStackedWidget*>();
    auto* empty = window.findChild<QWidget*>("emptyState");
    window.setRows({});
    EXPECT_EQ(pages->currentWidget(), empty);
    EXPECT_TRUE(window.findChild<QLabel*>("emptyText")
                    ->text()
                    .startsWith("Nothing is locked yet. Drag files or folders here"));
    window.setRows({makeRow("Report", locked)});
    EXPECT_EQ(pages->currentWidget(), list(window));
    window.setRows({});
    EXPECT_EQ(pages->currentWidget(), empty);
}

TEST(ItemListWindowTests, ActionsFollowTheSelectedItemsState) {
    const std::vector<const char*> names = {"unlock",     "lockNow", "reveal",
                                            "removeLock", "forget",  "locate"};
    struct Case {
        const char* label;
        std::optional<ItemRow> row;  // nothing: no selection
        std::vector<bool> enabled;   // in the order of `names`
    };
    std::vector<Case> cases = {
        {"nothing selected", std::nullopt, {false, false, false, false, false, false}},
        {"locked", makeRow("Taxes", locked), {true, false, false, true, true, false}},
        {"open", makeRow("Report", open), {false, true, true, false, true, false}},
        {"missing", makeRow("Old", missing), {false, false, false, false, true, true}},
        {"locked, old password",
         makeRow("Plans", locked, true),
         {true, false, false, true, true, false}},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.label);
        ItemListWindow window;
        window.setRows({c.row.value_or(makeRow("Other", locked))});
        if (c.row) select(window, 0);
        for (std::size_t i = 0; i < names.size(); ++i)
            EXPECT_EQ(action(window, names[i])->isEnabled(), c.enabled[i]) << names[i];
        EXPECT_TRUE(action(window, "lockFiles")->isEnabled());
    }
}

void doubleClick(QTreeWidget* view, int index) {
    view->scrollToItem(view->topLevelItem(index));
    QPoint at = view->visualItemRect(view->topLevelItem(index)).center();
    for (auto type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease,
                      QEvent::MouseButtonDblClick, QEvent::MouseButtonRelease}) {
        auto buttons = type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton;
        QMouseEvent event(type, at, view->viewport()->mapToGlobal(at), Qt::LeftButton, buttons,
                          Qt::NoModifier);
        QApplication::sendEvent(view->viewport(), &event);
    }
}

TEST(ItemListWindowTests, ActionsAndDoubleClickAskForTheSelectedItem) {
    struct Case {
        State state;
        const char* action;  // nothing: a double-click on the row
        std::string request;
    };
    std::string url = "/home/ana/Documents/Report.corvlock";
    std::vector<Case> cases = {
        {locked, "unlock", "unlock " + url}, {locked, "removeLock", "removeLock " + url},
        {locked, "forget", "forget Report"}, {open, "lockNow", "lockNow " + url},
        {open, "reveal", "reveal " + url},   {missing, "locate", "locate Report"},
        {locked, nullptr, "unlock " + url},  {open, nullptr, "reveal " + url},
        {missing, nullptr, "locate Report"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.action ? c.action : "double-click");
        ItemListWindow window;
        window.show();
        Requests requests(window);
        // The item of interest is not the first, so that a request for the wrong row shows.
        window.setRows({makeRow("Other", c.state), makeRow("Report", c.state)});
        select(window, 1);
        if (c.action)
            action(window, c.action)->trigger();
        else
            doubleClick(list(window), 1);
        EXPECT_EQ(requests.log, std::vector<std::string>{c.request});
    }
}

TEST(ItemListWindowTests, SelectionFollowsTheItemAcrossUpdates) {
    ItemListWindow window;
    auto report = makeRow("Report", locked);
    window.setRows({makeRow("Taxes", locked), report});
    select(window, 1);

    // Unlocked meanwhile, and now listed first among others.
    auto unlocked = report;
    unlocked.isOpen = true;
    window.setRows({unlocked, makeRow("Plans", locked), makeRow("Taxes", locked)});
    ASSERT_TRUE(window.selectedRow());
    EXPECT_EQ(window.selectedRow()->id, report.id);
    EXPECT_EQ(list(window)->currentItem(), list(window)->topLevelItem(0));
    EXPECT_TRUE(action(window, "lockNow")->isEnabled());
    EXPECT_FALSE(action(window, "unlock")->isEnabled());

    // Forgotten: nothing stays selected and no action points at it.
    window.setRows({makeRow("Plans", locked)});
    EXPECT_FALSE(window.selectedRow());
    EXPECT_FALSE(action(window, "forget")->isEnabled());
}

TEST(ItemListWindowTests, DroppedLocalFilesAskToBeLockedAsBytes) {
    struct Case {
        const char* label;
        std::vector<const char*> urls;
        std::vector<std::string> paths;
    };
    std::vector<Case> cases = {
        {"one file", {"file:///home/ana/Report.pdf"}, {"/home/ana/Report.pdf"}},
        {"two, escaped",
         {"file:///home/ana/My%20Files", "file:///home/ana/%C3%A9t%C3%A9"},
         {"/home/ana/My Files", "/home/ana/\xc3\xa9t\xc3\xa9"}},
        {"a name that is not UTF-8", {"file:///home/ana/caf%E9"}, {"/home/ana/caf\xe9"}},
        {"local ones among others",
         {"https://example.org/a", "file:///home/ana/a", "sftp://host/b"},
         {"/home/ana/a"}},
        {"localhost", {"file://localhost/home/ana/a"}, {"/home/ana/a"}},
        {"another machine", {"file://server/share/a"}, {}},
        {"web only", {"https://example.org/a"}, {}},
        {"a NUL in the name", {"file:///home/ana/a%00b"}, {}},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.label);
        ItemListWindow window;
        Requests requests(window);
        QMimeData data;
        QList<QUrl> urls;
        for (auto* url : c.urls) urls.append(QUrl::fromEncoded(url));
        data.setUrls(urls);

        QDragEnterEvent enter(QPoint(20, 20), Qt::CopyAction, &data, Qt::LeftButton,
                              Qt::NoModifier);
        QApplication::sendEvent(&window, &enter);
        EXPECT_EQ(enter.isAccepted(), !c.paths.empty());
        QDropEvent drop(QPointF(20, 20), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&window, &drop);

        std::vector<std::string> expected;
        for (auto& path : c.paths) expected.push_back("lock " + path);
        EXPECT_EQ(requests.log, expected);
    }
}

}  // namespace
}  // namespace corvane::app
