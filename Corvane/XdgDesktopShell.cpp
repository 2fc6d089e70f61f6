#include "XdgDesktopShell.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QProcess>
#include <QStringList>
#include <filesystem>

namespace corvane::app {

namespace {

// Long enough for a file manager that D-Bus starts on demand.
constexpr int kShowItemsTimeoutMs = 25'000;

void launch(const QString& opener, const std::string& path) {
    // A URI rather than the path: arguments pass through QString, which would not keep bytes
    // that are not UTF-8, and a name starting with '-' would read as an option.
    if (!QProcess::startDetached(opener, {XdgDesktopShell::fileURI(path)}))
        qWarning("corvane: could not start %s", qPrintable(opener));
}

std::string folderOf(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    auto slash = trimmed.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : trimmed.substr(0, slash);
}

}  // namespace

XdgDesktopShell::XdgDesktopShell(QDBusConnection bus, QString opener)
    : bus_(std::move(bus)), opener_(std::move(opener)) {}

QString XdgDesktopShell::fileURI(const std::string& path) {
    std::string absolute = path;
    if (absolute.empty() || absolute.front() != '/') {
        std::error_code ignored;
        absolute = std::filesystem::absolute(path, ignored).string();
    }
    static constexpr char kHex[] = "0123456789ABCDEF";
    QString uri = QStringLiteral("file://");
    uri.reserve(7 + int(absolute.size()) * 3);
    for (unsigned char byte : absolute) {
        bool keep = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                    (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' ||
                    byte == '~' || byte == '/';
        if (keep) {
            uri += QChar(byte);
        } else {
            uri += u'%';
            uri += QChar(kHex[byte >> 4]);
            uri += QChar(kHex[byte & 0xF]);
        }
    }
    return uri;
}

void XdgDesktopShell::open(const std::string& path) {
    launch(opener_, path);
}

void XdgDesktopShell::reveal(const std::vector<std::string>& paths) {
    if (paths.empty()) return;
    QStringList uris;
    for (const auto& path : paths) uris << fileURI(path);
    auto message = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.FileManager1"),
                                                  QStringLiteral("/org/freedesktop/FileManager1"),
                                                  QStringLiteral("org.freedesktop.FileManager1"),
                                                  QStringLiteral("ShowItems"));
    message << uris << QString();
    // Parentless and self-deleting: the reply may come after this shell is gone.
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message, kShowItemsTimeoutMs));
    QObject::connect(
        watcher, &QDBusPendingCallWatcher::finished,
        [opener = opener_, folder = folderOf(paths.front())](QDBusPendingCallWatcher* w) {
            w->deleteLater();
            QDBusPendingReply<> reply = *w;
            // A file manager that did not answer in time may still show the files.
            auto error = reply.error().type();
            if (reply.isError() && error != QDBusError::NoReply && error != QDBusError::Timeout)
                launch(opener, folder);
        });
}

}  // namespace corvane::app
