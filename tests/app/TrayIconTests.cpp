// The tray menu built from rows, what its entries ask for, and the glyph that follows the theme,
// all without a system tray.
#include <gtest/gtest.h>

#include <QApplication>
#include <QFile>
#include <QMenu>
#include <QPalette>
#include <QSvgRenderer>

#include "TrayIcon.h"
#include "TrayIcons.h"

namespace corvane::app {
namespace {

ItemRow makeRow(const std::string& name, bool found, bool open) {
    ItemRow row;
    row.id = Uuid::random();
    row.name = name;
    row.location = "/home/ana";
    if (found) row.url = "/home/ana/" + name + ".corvlock";
    row.isOpen = open;
    return row;
}

// Each entry as "text", "(text)" when disabled, "-" for a separator, and a submenu's entries
// after " > ".
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

TEST(TrayIconTests, MenuListsEachItemWithItsActionsThenTheCommands) {
    const std::vector<std::string> commands = {
        "-",           "Lock Files or Folders…", "Lock All Now", "Show Corvane", "Settings…", "-",
        "Quit Corvane"};
    struct Case {
        const char* label;
        std::vector<ItemRow> rows;
        std::vector<std::string> items;
        bool anythingOpen;
    };
    std::vector<Case> cases = {
        {"nothing", {}, {"(Nothing is locked yet)"}, false},
        {"one of each",
         {makeRow("Report", true, true), makeRow("Taxes", true, false),
          makeRow("Old", false, false)},
         {"Report — Unlocked > Lock Now > Show Unlocked Files", "Taxes — Locked > Unlock",
          "Old — Can't find this item > Locate…"},
         true},
        {"an ampersand in a name",
         {makeRow("R&D", true, false)},
         {"R&&D — Locked > Unlock"},
         false},
    };
    TrayIcon tray;
    for (auto& c : cases) {
        SCOPED_TRACE(c.label);
        tray.setRows(c.rows);  // each case after the last: nothing of it may stay
        auto expected = c.items;
        expected.insert(expected.end(), commands.begin(), commands.end());
        if (!c.anythingOpen) expected[expected.size() - 5] = "(Lock All Now)";
        EXPECT_EQ(describe(*tray.menu()), expected);
    }
}

TEST(TrayIconTests, EntriesAskForTheirOwnItem) {
    TrayIcon tray;
    std::vector<std::string> log;
    auto path = [&](const char* what) {
        return [&log, what](const std::string& path) { log.push_back(what + (" " + path)); };
    };
    QObject::connect(&tray, &TrayIcon::unlockRequested, path("unlock"));
    QObject::connect(&tray, &TrayIcon::lockNowRequested, path("lockNow"));
    QObject::connect(&tray, &TrayIcon::revealRequested, path("reveal"));
    QObject::connect(&tray, &TrayIcon::locateRequested,
                     [&](const ItemRow& row) { log.push_back("locate " + row.name); });
    QObject::connect(&tray, &TrayIcon::lockAllRequested, [&] { log.push_back("lockAll"); });
    QObject::connect(&tray, &TrayIcon::quitRequested, [&] { log.push_back("quit"); });
    tray.setRows({makeRow("Report", true, true), makeRow("Taxes", true, false),
                  makeRow("Old", false, false)});

    auto entries = tray.menu()->actions();
    for (int item = 0; item < 3; ++item)
        for (auto* action : entries[item]->menu()->actions()) action->trigger();
    entries[entries.size() - 5]->trigger();
    entries.back()->trigger();

    EXPECT_EQ(log, (std::vector<std::string>{
                       "lockNow /home/ana/Report.corvlock", "reveal /home/ana/Report.corvlock",
                       "unlock /home/ana/Taxes.corvlock", "locate Old", "lockAll", "quit"}));
}

TEST(TrayIconTests, GlyphStandsOutAgainstThePanel) {
    struct Case {
        const char* colour;
        bool dark;
    };
    std::vector<Case> cases = {
        {"#ffffff", false}, {"#f6f5f4", false}, {"#808080", false}, {"#ffff00", false},
        {"#31363b", true},  {"#0000ff", true},  // half lightness, yet a dark glyph would hardly
                                                // show on it
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.colour);
        QColor colour(c.colour);
        EXPECT_EQ(TrayIcons::isDark(colour), c.dark);
        QString variant = c.dark ? "dark" : "light";
        EXPECT_EQ(TrayIcons::trayIcon(colour, false), ":/corvane/icons/tray-" + variant + ".svg");
        EXPECT_EQ(TrayIcons::trayIcon(colour, true),
                  ":/corvane/icons/tray-open-" + variant + ".svg");
    }
}

TEST(TrayIconTests, EveryIconIsAValidPicture) {
    QStringList paths = {TrayIcons::applicationIcon()};
    for (auto* colour : {"#ffffff", "#000000"})
        for (bool open : {false, true}) paths.append(TrayIcons::trayIcon(QColor(colour), open));
    for (auto& path : paths) {
        SCOPED_TRACE(path.toStdString());
        EXPECT_TRUE(QSvgRenderer(path).isValid());
    }
}

TEST(TrayIconTests, GlyphFollowsTheThemeAndTheItems) {
    QPalette original = QApplication::palette();
    QPalette light = original, dark = original;
    light.setColor(QPalette::Window, QColor("#f6f5f4"));
    dark.setColor(QPalette::Window, QColor("#2e2e2e"));

    QApplication::setPalette(light);
    TrayIcon tray;
    EXPECT_EQ(tray.iconPath(), ":/corvane/icons/tray-light.svg");
    tray.setRows({makeRow("Report", true, true)});
    EXPECT_EQ(tray.iconPath(), ":/corvane/icons/tray-open-light.svg");
    QApplication::setPalette(dark);
    EXPECT_EQ(tray.iconPath(), ":/corvane/icons/tray-open-dark.svg");
    tray.setRows({makeRow("Report", true, false)});
    EXPECT_EQ(tray.iconPath(), ":/corvane/icons/tray-dark.svg");
    QApplication::setPalette(original);
}

}  // namespace
}  // namespace corvane::app
