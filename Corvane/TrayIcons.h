// Which pictures the application shows: the colour icon, and the tray glyph that stands out
// against the panel, closed or open. Pure functions; any thread.
#pragma once

#include <QColor>
#include <QString>

namespace corvane::app {

struct TrayIcons {
    // Whether text on a background of this colour should be light.
    static bool isDark(const QColor& background);
    // The glyph's resource for a panel like `background`, showing whether an item is unlocked.
    static QString trayIcon(const QColor& background, bool anythingOpen);
    static QString applicationIcon();
};

}  // namespace corvane::app
