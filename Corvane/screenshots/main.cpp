// Renders the application's windows on Qt's offscreen platform to PNG files, from made-up rows
// and seams, so the pictures need no engine, keyring or desktop. The style, palette and font are
// fixed, so that the same code gives the same pictures on any machine.
#include <QApplication>
#include <QCursor>
#include <QDir>
#include <QFont>
#include <QMenu>
#include <QMessageBox>
#include <QStyle>
#include <QStyleFactory>
#include <QTimer>
#include <QTreeWidget>
#include <cstdio>
#include <cstdlib>

#include "AppModel.h"
#include "ItemListWindow.h"
#include "ProgressWindow.h"
#include "PromptPanel.h"
#include "SettingsWindow.h"
#include "SetupWindow.h"
#include "TrayIcon.h"

using namespace corvane;
using namespace corvane::app;

namespace {

QDir output;
bool failed = false;

void save(QWidget& widget, const QString& name) {
    widget.show();
    QApplication::processEvents();
    QString path = output.filePath(name + QStringLiteral(".png"));
    if (widget.grab().save(path)) {
        std::printf("%s\n", qPrintable(path));
    } else {
        std::fprintf(stderr, "corvane-screenshots: cannot write %s\n", qPrintable(path));
        failed = true;
    }
}

ItemRow row(const char* name, const char* folder, bool found, bool open, std::int64_t size) {
    ItemRow row;
    row.id = Uuid::random();
    row.name = name;
    row.location = folder;
    if (found) row.url = std::string(folder) + "/" + name + ".corvlock";
    if (found) row.size = size;
    row.originalSize = size;
    row.isOpen = open;
    return row;
}

std::vector<ItemRow> sampleRows() {
    return {row("Report", "/home/ana/Documents", true, true, 1'234'567),
            row("Taxes 2025", "/home/ana/Documents/Finance", true, false, 48'310'000),
            row("Old Photos", "/media/ana/Backup", false, false, 2'700'000'000)};
}

void itemList() {
    ItemListWindow window;
    window.setFixedSize(820, 320);
    window.setRows(sampleRows());
    window.findChild<QTreeWidget*>()->setCurrentItem(
        window.findChild<QTreeWidget*>()->topLevelItem(0));
    save(window, QStringLiteral("item-list"));

    ItemListWindow empty;
    empty.setFixedSize(820, 320);
    empty.setRows({});
    save(empty, QStringLiteral("item-list-empty"));
}

void trayMenu() {
    TrayIcon tray;
    tray.setRows(sampleRows());
    tray.menu()->adjustSize();
    save(*tray.menu(), QStringLiteral("tray-menu"));
    tray.menu()->hide();
}

void progress() {
    ProgressWindow window;
    window.show(LockSteps::message(LockStep::encrypting, "Report"), [] {});
    window.showBytes(412'000'000, 1'234'000'000);
    save(window, QStringLiteral("progress"));
}

// The prompt as the model's questions are really asked: the panel's own box, grabbed while it
// waits for an answer, then cancelled.
void inUsePrompt() {
    QTimer::singleShot(0, [] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) {
            std::fprintf(stderr, "corvane-screenshots: the prompt did not open\n");
            failed = true;
            return;
        }
        save(*box, QStringLiteral("in-use-prompt"));
        box->reject();
    });
    PromptPanel panel;
    panel.choose("Report is still in use",
                 "Files are open in Text Editor. Close them, then try again. Force Lock closes "
                 "them without saving, so unsaved changes in open apps will be lost.",
                 {"Try Again", "Force Lock", "Cancel"});
}

void setup() {
    SetupWindow::Seams seams;
    seams.fingerprintAvailable = true;
    seams.diskEncryptionOn = [] { return true; };
    seams.fileManagerMenuEnabled = [] { return false; };
    seams.enableFileManagerMenu = [] { return std::optional<std::string>(); };
    seams.save = [](const std::string&, bool) { return std::optional<std::string>(); };
    const char* names[] = {"welcome",      "password",        "fingerprint",
                           "file-manager", "disk-protection", "done"};
    for (int step = SetupWindow::welcome; step <= SetupWindow::done; ++step) {
        SetupWindow window(seams);
        window.showStep(step);
        window.setPasswordFields(QStringLiteral("correct horse battery"),
                                 QStringLiteral("correct horse battery"), true);
        window.freezeDemo();
        save(window, QStringLiteral("setup-%1-%2").arg(step + 1).arg(names[step]));
    }
}

void settings() {
    SettingsWindow::Seams seams;
    seams.idleMinutes = [] { return 15; };
    seams.setIdleMinutes = [](int) {};
    seams.fingerprintAvailable = [] { return true; };
    seams.fingerprintEnabled = [] { return true; };
    seams.setFingerprintEnabled = [](bool) {};
    seams.startsAtLogin = [] { return true; };
    seams.setStartsAtLogin = [](bool) {};
    seams.fileManagerMenuEnabled = [] { return true; };
    seams.setFileManagerMenu = [](bool) { return std::optional<std::string>(); };
    seams.changePassword = [](std::string, std::string) -> Task<std::optional<std::string>> {
        co_return std::nullopt;
    };
    SettingsWindow window(std::move(seams));
    save(window, QStringLiteral("settings"));
}

}  // namespace

int main(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    // The pictures must not depend on the screen's scale or on a platform theme.
    unsetenv("QT_SCALE_FACTOR");
    unsetenv("QT_QPA_PLATFORMTHEME");
    QApplication application(argc, argv);
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QApplication::setPalette(QApplication::style()->standardPalette());
    QApplication::setFont(QFont(QStringLiteral("DejaVu Sans"), 10));
    // The pointer starts at the top left, where it would light up the first toolbar button.
    QCursor::setPos(-1000, -1000);

    output.setPath(argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("docs/screenshots"));
    if (!output.mkpath(QStringLiteral("."))) {
        std::fprintf(stderr, "corvane-screenshots: cannot create %s\n", qPrintable(output.path()));
        return 1;
    }
    itemList();
    trayMenu();
    progress();
    inUsePrompt();
    setup();
    settings();
    return failed ? 1 : 0;
}
