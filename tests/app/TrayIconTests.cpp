// The tray menu built from rows, what its entries ask for, and the glyph that
// follows the theme, all without a system tray.
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
    struct Case {
        const char* label;
        std::vector<ItemRow> rows;
        std::vector<std::string> items;
        std::vector<std::string> itemRequests;  // from the items' entries, top to bottom
    };
    std::vector<Case> cases = {
        {"nothing", {}, {"(Nothing is locked yet)"}, {}},
        {"one of each",
         {makeRow("Report", true, true), makeRow("Taxes", true, false),
          makeRow("Old", false, false)},
         {"Report — Unlocked > Lock Now > Show Unlocked Files", "Taxes — Locked > Unlock",
          "Old — Can't find this item > Locate…"},
         {"lockNow /home/ana/Report.corvlock", "reveal /home/ana/Report.corvlock",
          "unlock /home/ana/Taxes.corvlock", "locate Old"}},
        {"an ampersand in a name",
         {makeRow("R&D", true, false)},
         {"R&&D — Locked > Unlock"},
         {"unlock /home/ana/R&D.corvlock"}}};
    TrayIcon tray;
    std::vector<std::string> log;
    auto note = [&](std::string what) { return [&log, what] { log.push_back(what); }; };
    auto path = [&](const char* what) {
        return [&log, what](const std::string& path) { log.push_back(what + (" " + path)); };
    };
    QObject::connect(&tray, &TrayIcon::unlockRequested, path("unlock"));
    QObject::connect(&tray, &TrayIcon::lockNowRequested, path("lockNow"));
    QObject::connect(&tray, &TrayIcon::revealRequested, path("reveal"));
    QObject::connect(&tray, &TrayIcon::locateRequested,
                     [&](const ItemRow& row) { log.push_back("locate " + row.name); });
    QObject::connect(&tray, &TrayIcon::chooseAndLockRequested, note("chooseAndLock"));
    QObject::connect(&tray, &TrayIcon::lockAllRequested, note("lockAll"));
    QObject::connect(&tray, &TrayIcon::showWindowRequested, note("show"));
    QObject::connect(&tray, &TrayIcon::settingsRequested, note("settings"));
    QObject::connect(&tray, &TrayIcon::quitRequested, note("quit"));
    for (auto& c : cases) {
        SCOPED_TRACE(c.label);
        tray.setRows(c.rows);  // each case after the last: nothing of it may stay
        bool anythingOpen = std::ranges::any_of(c.rows, &ItemRow::isOpen);
        auto expected = c.items;
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
        auto requests = c.itemRequests;
        for (const char* command : {"chooseAndLock", "lockAll", "show", "settings", "quit"})
            if (anythingOpen || command != std::string("lockAll")) requests.push_back(command);
        EXPECT_EQ(log, requests);
    }
}

TEST(TrayIconTests, GlyphStandsOutAgainstThePanelAndEveryIconIsAValidPicture) {
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
        for (bool open : {false, true})
            EXPECT_TRUE(QSvgRenderer(TrayIcons::trayIcon(colour, open)).isValid()) << open;
    }
    EXPECT_TRUE(QSvgRenderer(TrayIcons::applicationIcon()).isValid());
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
