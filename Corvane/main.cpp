// corvane-app: the tray application. One copy runs per user; a second one brings the first one's
// window forward and ends. --self-test checks the shared state's folder and exits;
// --background (used at login) starts without opening the item list.
#include <sys/prctl.h>

#include <QApplication>
#include <QEventLoop>
#include <QSessionManager>
#include <QTimer>
#include <QIcon>
#include <cstring>
#include <iostream>
#include <memory>

#include "AppDelegate.h"
#include "AppModel.h"
#include "AutoStart.h"
#include "CommandReceiver.h"
#include "DBusNotifier.h"
#include "InstanceChannel.h"
#include "ItemListWindow.h"
#include "ProgressWindow.h"
#include "PromptPanel.h"
#include "SelfTest.h"
#include "SettingsWindow.h"
#include "SetupWindow.h"
#include "TerminationSignals.h"
#include "TrayIcon.h"
#include "TrayIcons.h"
#include "WindowSeams.h"
#include "XdgDesktopShell.h"

using namespace corvane::app;

namespace {

bool hasArgument(int argc, char** argv, const char* wanted) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], wanted) == 0) return true;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (hasArgument(argc, argv, "--self-test")) return SelfTest::run(std::cout);
    // The password passes through this process: a crash must not write it to disk.
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);

    QApplication application(argc, argv);
    QApplication::setApplicationName("Corvane");
    QApplication::setDesktopFileName("corvane");
    QApplication::setWindowIcon(QIcon(TrayIcons::applicationIcon()));
    // The application lives in the tray; closing its windows does not end it.
    QApplication::setQuitOnLastWindowClosed(false);

    PromptPanel prompts;
    DBusNotifier notifier;
    ProgressWindow progress;
    XdgDesktopShell shell;
    AppModel model({prompts, notifier, progress, shell},
                   AppModel::Configuration::fromEnvironment());
    if (!model.start()) {
        // Another copy owns the records: it shows its window instead, and this one ends quietly.
        InstanceChannel::send("show\n", 2000);
        return 0;
    }
    InstanceChannel channel;
    channel.listen();
    AppDelegate delegate(model, prompts);
    CommandReceiver receiver(model, prompts, notifier);
    QObject::connect(&channel, &InstanceChannel::messageReceived, &receiver,
                     &CommandReceiver::receive);

    ItemListWindow list;
    list.connectToModel(model);
    TrayIcon tray;
    tray.connectToModel(model);
    tray.show();
    SettingsWindow settings(WindowSeams::settings(
        model, [] { return AutoStart::isEnabled(); },
        [](bool on) {
            if (auto problem = AutoStart::setEnabled(on)) qWarning("corvane: %s", problem->c_str());
        }));
    std::unique_ptr<SetupWindow> setup;

    auto showMain = [&] {
        if (!model.needsSetup()) {
            list.present();
            return;
        }
        if (!setup) {
            setup = std::make_unique<SetupWindow>(WindowSeams::setup(model));
            QObject::connect(setup.get(), &SetupWindow::finished, &list, [&] {
                setup->hide();
                // Someone who set Corvane up wants it there after the next login too; the
                // settings turn that off.
                AutoStart::setEnabled(true);
                list.present();
            });
        }
        setup->show();
        setup->raise();
        setup->activateWindow();
    };
    QObject::connect(&channel, &InstanceChannel::showRequested, &list, showMain);
    QObject::connect(&tray, &TrayIcon::showWindowRequested, &list, showMain);
    QObject::connect(&tray, &TrayIcon::settingsRequested, &settings, [&] {
        settings.show();
        settings.raise();
        settings.activateWindow();
    });
    QObject::connect(&tray, &TrayIcon::quitRequested, &delegate, &AppDelegate::requestQuit);

    // Logout: the session manager asks first where it speaks XSMP, and the session's processes
    // get SIGTERM in the end. Open items are locked either way; gocryptfs would outlive us.
    TerminationSignals stopRequests;
    QObject::connect(&stopRequests, &TerminationSignals::received, &delegate,
                     &AppDelegate::endSession);
    QObject::connect(&application, &QGuiApplication::commitDataRequest, &delegate,
                     [&delegate](QSessionManager&) {
                         bool done = false;
                         spawn([](AppDelegate& delegate, bool& done) -> Task<> {
                             co_await delegate.lockForSessionEnd();
                             done = true;
                         }(delegate, done));
                         // The session manager waits for this answer; the lock runs meanwhile.
                         QEventLoop waiting;
                         QTimer deadline;
                         deadline.setSingleShot(true);
                         QObject::connect(&deadline, &QTimer::timeout, &waiting, &QEventLoop::quit);
                         deadline.start(10'000);
                         while (!done && deadline.isActive())
                             waiting.processEvents(QEventLoop::WaitForMoreEvents);
                     });

    if (model.needsSetup() || !hasArgument(argc, argv, "--background")) showMain();
    return application.exec();
}
