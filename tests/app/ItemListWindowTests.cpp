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
#include <map>

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
struct Requested {
    std::vector<std::string> log;

    explicit Requested(ItemListWindow& window) {
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

TEST(ItemListWindowTests, ShowsEachRowsNameLocationSizeAndStatusOrHowToLockWhenEmpty) {
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
    ItemListWindow window;
    auto* pages = window.findChild<QStackedWidget*>();
    auto* empty = window.findChild<QWidget*>("emptyState");
    window.setRows({});
    EXPECT_EQ(pages->currentWidget(), empty);
    EXPECT_TRUE(window.findChild<QLabel*>("emptyText")
                    ->text()
                    .startsWith("Nothing is locked yet. Drag files or folders here"));

    std::vector<ItemRow> rows;
    for (auto& c : cases) rows.push_back(c.row);
    window.setRows(rows);
    EXPECT_EQ(pages->currentWidget(), list(window));
    ASSERT_EQ(list(window)->topLevelItemCount(), static_cast<int>(cases.size()));
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto* item = list(window)->topLevelItem(static_cast<int>(i));
        SCOPED_TRACE(cases[i].row.name);
        EXPECT_EQ(item->text(ItemListWindow::nameColumn), cases[i].name);
        EXPECT_EQ(item->text(ItemListWindow::locationColumn), "/home/ana/Documents");
        EXPECT_EQ(item->text(ItemListWindow::sizeColumn), cases[i].size);
        EXPECT_EQ(item->text(ItemListWindow::statusColumn), cases[i].status);
    }
    window.setRows({});
    EXPECT_EQ(pages->currentWidget(), empty);
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

TEST(ItemListWindowTests, ActionsFollowTheSelectedItemsStateAndAskForIt) {
    const std::string url = "/home/ana/Documents/Report.corvlock";
    using Requests = std::map<std::string, std::string>;  // what each enabled action asks for
    const Requests forLocked = {{"unlock", "unlock " + url},
                                {"removeLock", "removeLock " + url},
                                {"forget", "forget Report"}};
    struct Case {
        const char* label;
        std::optional<ItemRow> row;  // nothing: no selection
        Requests requests;
        std::optional<std::string> doubleClick;
    };
    std::vector<Case> cases = {
        {"nothing selected", std::nullopt, {}, std::nullopt},
        {"locked", makeRow("Report", locked), forLocked, "unlock " + url},
        {"open",
         makeRow("Report", open),
         {{"lockNow", "lockNow " + url}, {"reveal", "reveal " + url}, {"forget", "forget Report"}},
         "reveal " + url},
        {"missing",
         makeRow("Report", missing),
         {{"forget", "forget Report"}, {"locate", "locate Report"}},
         "locate Report"},
        {"locked, old password", makeRow("Report", locked, true), forLocked, "unlock " + url},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.label);
        ItemListWindow window;
        window.show();
        Requested requested(window);
        // The item of interest is not the first, so that a request for the wrong row shows.
        window.setRows({makeRow("Other", locked), c.row.value_or(makeRow("Report", locked))});
        if (c.row) select(window, 1);
        EXPECT_TRUE(action(window, "lockFiles")->isEnabled());
        for (const char* name : {"unlock", "lockNow", "reveal", "removeLock", "forget", "locate"}) {
            auto asked = c.requests.find(name);
            ASSERT_EQ(action(window, name)->isEnabled(), asked != c.requests.end()) << name;
            if (asked == c.requests.end()) continue;
            requested.log.clear();
            action(window, name)->trigger();
            EXPECT_EQ(requested.log, std::vector<std::string>{asked->second}) << name;
        }
        if (!c.doubleClick) continue;
        requested.log.clear();
        doubleClick(list(window), 1);
        EXPECT_EQ(requested.log, std::vector<std::string>{*c.doubleClick});
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
        Requested requested(window);
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
        EXPECT_EQ(requested.log, expected);
    }
}

}  // namespace
}  // namespace corvane::app
