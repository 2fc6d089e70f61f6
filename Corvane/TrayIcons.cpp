#include "TrayIcons.h"

// The resources live in a static library: nothing would pull them into a program unless they are
// registered by name. Every icon path comes from here, so here they are.
static void registerResources() {
    Q_INIT_RESOURCE(resources);
}

namespace corvane::app {

namespace {

QString resource(const QString& name) {
    static const bool registered = (registerResources(), true);
    (void)registered;
    return QStringLiteral(":/corvane/icons/") + name;
}

}  // namespace

bool TrayIcons::isDark(const QColor& background) {
    // Perceived brightness rather than HSL lightness: a saturated blue panel has a lightness of
    // one half, yet a dark glyph on it can hardly be seen.
    return qGray(background.rgb()) < 128;
}

QString TrayIcons::trayIcon(const QColor& background, bool anythingOpen) {
    QString name = anythingOpen ? QStringLiteral("tray-open") : QStringLiteral("tray");
    // "-dark" is drawn for dark panels: a light glyph.
    return resource(
        QStringLiteral("%1-%2.svg")
            .arg(name, isDark(background) ? QStringLiteral("dark") : QStringLiteral("light")));
}

QString TrayIcons::applicationIcon() {
    return resource(QStringLiteral("corvane.svg"));
}

}  // namespace corvane::app
