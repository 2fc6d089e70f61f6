// The item list window and the tray menu on their own: what each shows for its rows, which actions
// each state allows and what they ask for, the list's selection and drops, and the tray's glyph.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QMouseEvent>
#include <QPalette>
#include <QStackedWidget>
#include <QSvgRenderer>
#include <QTreeWidget>
#include <QUrl>
#include <map>

#include "ItemListWindow.h"
#include "TrayIcon.h"
#include "TrayIcons.h"

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

// Every request a view makes, as "request argument".
struct Requested {
    std::vector<std::string> log;

    template <class View>
    explicit Requested(View& view) {
        auto path = [this](const char* what) {
            return [this, what](const std::string& path) { log.push_back(what + (" " + path)); };
        };
        auto row = [this](const char* what) {
            return [this, what](const ItemRow& row) { log.push_back(what + (" " + row.name)); };
        };
        auto plain = [this](const char* what) { return [this, what] { log.push_back(what); }; };
        QObject::connect(&view, &View::unlockRequested, path("unlock"));
        QObject::connect(&view, &View::lockNowRequested, path("lockNow"));
        QObject::connect(&view, &View::revealRequested, path("reveal"));
        QObject::connect(&view, &View::locateRequested, row("locate"));
        QObject::connect(&view, &View::chooseAndLockRequested, plain("chooseAndLock"));
        if constexpr (std::is_same_v<View, ItemListWindow>) {
            QObject::connect(&view, &View::removeLockRequested, path("removeLock"));
            QObject::connect(&view, &View::forgetRequested, row("forget"));
            QObject::connect(&view, &View::lockRequested,
                             [this](const std::vector<std::string>& paths) {
                                 for (auto& path : paths) log.push_back("lock " + path);
                             });
        } else {
            QObject::connect(&view, &View::lockAllRequested, plain("lockAll"));
            QObject::connect(&view, &View::showWindowRequested, plain("show"));
            QObject::connect(&view, &View::settingsRequested, plain("settings"));
            QObject::connect(&view, &View::quitRequested, plain("quit"));
        }
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
    // A row and what its name, size and status columns show.
    const std::tuple<ItemRow, QString, QString, QString> cases[] = {
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
    for (const auto& each : cases) rows.push_back(std::get<0>(each));
    window.setRows(rows);
    EXPECT_EQ(pages->currentWidget(), list(window));
    ASSERT_EQ(list(window)->topLevelItemCount(), static_cast<int>(std::size(cases)));
    for (int i = 0; const auto& [row, name, size, status] : cases) {
        auto* item = list(window)->topLevelItem(i++);
        EXPECT_EQ(item->text(ItemListWindow::nameColumn), name);
        EXPECT_EQ(item->text(ItemListWindow::locationColumn), "/home/ana/Documents") << row.name;
        EXPECT_EQ(item->text(ItemListWindow::sizeColumn), size) << row.name;
        EXPECT_EQ(item->text(ItemListWindow::statusColumn), status) << row.name;
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
    // The row selected (none: no selection), what each enabled action asks for and what a
    // double-click asks for.
    const std::tuple<const char*, std::optional<ItemRow>, Requests, std::optional<std::string>>
        cases[] = {
            {"nothing selected", std::nullopt, {}, std::nullopt},
            {"locked", makeRow("Report", locked), forLocked, "unlock " + url},
            {"open",
             makeRow("Report", open),
             {{"lockNow", "lockNow " + url},
              {"reveal", "reveal " + url},
              {"forget", "forget Report"}},
             "reveal " + url},
            {"missing",
             makeRow("Report", missing),
             {{"forget", "forget Report"}, {"locate", "locate Report"}},
             "locate Report"},
            {"locked, old password", makeRow("Report", locked, true), forLocked, "unlock " + url},
        };
    for (const auto& [label, row, requests, doubleClicked] : cases) {
        SCOPED_TRACE(label);
        ItemListWindow window;
        window.show();
        Requested requested(window);
        // The item of interest is not the first, so that a request for the wrong row shows.
        window.setRows({makeRow("Other", locked), row.value_or(makeRow("Report", locked))});
        if (row) select(window, 1);
        EXPECT_TRUE(action(window, "lockFiles")->isEnabled());
        for (const char* name : {"unlock", "lockNow", "reveal", "removeLock", "forget", "locate"}) {
            auto asked = requests.find(name);
            ASSERT_EQ(action(window, name)->isEnabled(), asked != requests.end()) << name;
            if (asked == requests.end()) continue;
            requested.log.clear();
            action(window, name)->trigger();
            EXPECT_EQ(requested.log, std::vector<std::string>{asked->second}) << name;
        }
        if (!doubleClicked) continue;
        requested.log.clear();
        doubleClick(list(window), 1);
        EXPECT_EQ(requested.log, std::vector<std::string>{*doubleClicked});
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
    // What is dropped and the paths asked to be locked.
    const std::tuple<const char*, std::vector<const char*>, std::vector<std::string>> cases[] = {
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
    for (const auto& [label, dropped, paths] : cases) {
        SCOPED_TRACE(label);
        ItemListWindow window;
        Requested requested(window);
        QMimeData data;
        QList<QUrl> urls;
        for (auto* url : dropped) urls.append(QUrl::fromEncoded(url));
        data.setUrls(urls);
        QDragEnterEvent enter(QPoint(20, 20), Qt::CopyAction, &data, Qt::LeftButton,
                              Qt::NoModifier);
        QApplication::sendEvent(&window, &enter);
        EXPECT_EQ(enter.isAccepted(), !paths.empty());
        QDropEvent drop(QPointF(20, 20), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&window, &drop);
        std::vector<std::string> expected;
        for (auto& path : paths) expected.push_back("lock " + path);
        EXPECT_EQ(requested.log, expected);
    }
}

// Each entry as "text", "(text)" when disabled, "-" for a separator, and a
// submenu's entries after " > ".
std::vector<std::string> describe(const QMenu& menu) {
    std::vector<std::string> entries;
    for (auto* action : menu.actions()) {
        if (action->isSeparator()) {
            entries.push_back("-");
            continue;
        }
        std::string text = action->text().toStdString();
        if (!action->isEnabled()) text = "(" + text + ")";
        if (auto* submenu = action->menu())
            for (auto& entry : describe(*submenu)) text += " > " + entry;
        entries.push_back(text);
    }
    return entries;
}

TEST(TrayIconTests, MenuListsEachItemWithItsActionsThenTheCommandsAndEachAsksForItsOwn) {
    // The rows, the items' entries and what they ask for, top to bottom.
    using Lines = std::vector<std::string>;
    const std::tuple<const char*, std::vector<ItemRow>, Lines, Lines> cases[] = {
        {"nothing", {}, {"(Nothing is locked yet)"}, {}},
        {"one of each",
         {makeRow("Report", open), makeRow("Taxes", locked), makeRow("Old", missing)},
         {"Report — Unlocked > Lock Now > Show Unlocked Files", "Taxes — Locked > Unlock",
          "Old — Can't find this item > Locate…"},
         {"lockNow /home/ana/Documents/Report.corvlock",
          "reveal /home/ana/Documents/Report.corvlock", "unlock /home/ana/Documents/Taxes.corvlock",
          "locate Old"}},
        {"an ampersand in a name",
         {makeRow("R&D", locked)},
         {"R&&D — Locked > Unlock"},
         {"unlock /home/ana/Documents/R&D.corvlock"}}};
    TrayIcon tray;
    Requested requested(tray);
    auto& log = requested.log;
    for (const auto& [label, rows, items, itemRequests] : cases) {
        SCOPED_TRACE(label);
        tray.setRows(rows);  // each case after the last: nothing of it may stay
        bool anythingOpen = std::ranges::any_of(rows, &ItemRow::isOpen);
        auto expected = items;
        for (std::string command : {"-", "Lock Files or Folders…", "Lock All Now", "Show Corvane",
                                    "Settings…", "-", "Quit Corvane"})
            expected.push_back(!anythingOpen && command == "Lock All Now" ? "(Lock All Now)"
                                                                          : command);
        EXPECT_EQ(describe(*tray.menu()), expected);

        log.clear();
        for (auto* entry : tray.menu()->actions()) {
            if (auto* submenu = entry->menu())
                for (auto* action : submenu->actions()) action->trigger();
            else if (entry->isEnabled())
                entry->trigger();
        }
        auto requests = itemRequests;
        for (const char* command : {"chooseAndLock", "lockAll", "show", "settings", "quit"})
            if (anythingOpen || command != std::string("lockAll")) requests.push_back(command);
        EXPECT_EQ(log, requests);
    }
}

TEST(TrayIconTests, GlyphStandsOutAgainstThePanelFollowsTheThemeAndItemsAndIsAValidPicture) {
    // Pure blue is half lightness, yet a dark glyph would hardly show on it.
    const std::pair<const char*, bool> panels[] = {{"#ffffff", false}, {"#f6f5f4", false},
                                                   {"#808080", false}, {"#ffff00", false},
                                                   {"#31363b", true},  {"#0000ff", true}};
    QPalette original = QApplication::palette();
    TrayIcon tray;
    bool unlocked = false;
    for (const auto& [colour, dark] : panels) {
        EXPECT_EQ(TrayIcons::isDark(QColor(colour)), dark) << colour;
        QPalette palette = original;
        palette.setColor(QPalette::Window, QColor(colour));
        QApplication::setPalette(palette);
        // The theme's change alone, then the items', each show at once.
        for (int change = 0; change < 2; ++change) {
            if (change) tray.setRows({makeRow("Report", (unlocked = !unlocked) ? open : locked)});
            QString path = QStringLiteral(":/corvane/icons/tray-%1%2.svg")
                               .arg(unlocked ? "open-" : "", dark ? "dark" : "light");
            EXPECT_EQ(tray.iconPath(), path) << colour;
            EXPECT_TRUE(QSvgRenderer(path).isValid()) << path.toStdString();
        }
    }
    QApplication::setPalette(original);
    EXPECT_TRUE(QSvgRenderer(TrayIcons::applicationIcon()).isValid());
}

}  // namespace
}  // namespace corvane::app
