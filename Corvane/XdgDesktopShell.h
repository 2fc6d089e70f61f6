// DesktopShell on the freedesktop interfaces: files are revealed through the file manager's
// org.freedesktop.FileManager1 service on the session bus, and anything else is opened with
// xdg-open, started detached. Nothing waits for either. Main thread only.
#pragma once

#include <QDBusConnection>
#include <QString>
#include <string>
#include <vector>

#include "DesktopShell.h"

namespace corvane::app {

class XdgDesktopShell : public DesktopShell {
public:
    // `opener` is the program handed a file:// URI to open, looked up on PATH.
    explicit XdgDesktopShell(QDBusConnection bus = QDBusConnection::sessionBus(),
                             QString opener = QStringLiteral("xdg-open"));

    void open(const std::string& path) override;
    // With no file manager on the bus, opens the folder of the first path instead.
    void reveal(const std::vector<std::string>& paths) override;

    // The file:// URI of a path, every byte outside the unreserved set percent-encoded, so
    // that names that are not UTF-8 arrive unchanged. A relative path is taken from the
    // current folder.
    static QString fileURI(const std::string& path);

private:
    QDBusConnection bus_;
    QString opener_;
};

}  // namespace corvane::app
