#include "TrayIcon.h"

#include <QApplication>
#include <QFile>
#include <QMenu>
#include <algorithm>

#include "AppModel.h"
#include "ItemListWindow.h"
#include "Task.h"
#include "TrayIcons.h"

namespace corvane::app {

TrayIcon::TrayIcon(QObject* parent) : QObject(parent), menu_(std::make_unique<QMenu>()) {
    tray_.setContextMenu(menu_.get());
    connect(&tray_, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason why) {
                if (why == QSystemTrayIcon::Trigger) emit showWindowRequested();
            });
    // The theme can turn dark or light while the application runs.
    qApp->installEventFilter(this);
    rebuildMenu();
    updateIcon();
}

TrayIcon::~TrayIcon() = default;

void TrayIcon::setRows(std::vector<ItemRow> rows) {
    rows_ = std::move(rows);
    rebuildMenu();
    updateIcon();
}

void TrayIcon::show() {
    tray_.show();
}

bool TrayIcon::eventFilter(QObject* watched, QEvent* event) {
    if (watched == qApp && event->type() == QEvent::ApplicationPaletteChange) updateIcon();
    return false;
}

void TrayIcon::updateIcon() {
    auto open = std::count_if(rows_.begin(), rows_.end(), [](auto& row) { return row.isOpen; });
    QString path =
        TrayIcons::trayIcon(QGuiApplication::palette().color(QPalette::Window), open > 0);
    if (path != iconPath_) {
        iconPath_ = path;
        tray_.setIcon(QIcon(path));
    }
    tray_.setToolTip(open == 0   ? QStringLiteral("Corvane")
                     : open == 1 ? QStringLiteral("Corvane — 1 item unlocked")
                                 : QStringLiteral("Corvane — %1 items unlocked").arg(open));
}

void TrayIcon::rebuildMenu() {
    // Submenus are children of the menu, which clear() leaves alone.
    for (auto* action : menu_->actions())
        if (auto* submenu = action->menu()) submenu->deleteLater();
    menu_->clear();

    for (const ItemRow& row : rows_) {
        // A lone "&" would underline the next letter instead of showing.
        QString name = QFile::decodeName(QByteArray::fromStdString(row.name));
        name.replace(QLatin1Char('&'), QStringLiteral("&&"));
        auto* submenu =
            menu_->addMenu(QStringLiteral("%1 — %2").arg(name, ItemListWindow::statusText(row)));
        if (!row.url) {
            connect(submenu->addAction(QStringLiteral("Locate…")), &QAction::triggered, this,
                    [this, row] { emit locateRequested(row); });
        } else if (row.isOpen) {
            connect(submenu->addAction(QStringLiteral("Lock Now")), &QAction::triggered, this,
                    [this, path = *row.url] { emit lockNowRequested(path); });
            connect(submenu->addAction(QStringLiteral("Show Unlocked Files")), &QAction::triggered,
                    this, [this, path = *row.url] { emit revealRequested(path); });
        } else {
            connect(submenu->addAction(QStringLiteral("Unlock")), &QAction::triggered, this,
                    [this, path = *row.url] { emit unlockRequested(path); });
        }
    }
    if (rows_.empty()) menu_->addAction(QStringLiteral("Nothing is locked yet"))->setEnabled(false);
    menu_->addSeparator();

    connect(menu_->addAction(QStringLiteral("Lock Files or Folders…")), &QAction::triggered, this,
            &TrayIcon::chooseAndLockRequested);
    auto* lockAll = menu_->addAction(QStringLiteral("Lock All Now"));
    lockAll->setEnabled(
        std::any_of(rows_.begin(), rows_.end(), [](auto& row) { return row.isOpen; }));
    connect(lockAll, &QAction::triggered, this, &TrayIcon::lockAllRequested);
    connect(menu_->addAction(QStringLiteral("Show Corvane")), &QAction::triggered, this,
            &TrayIcon::showWindowRequested);
    connect(menu_->addAction(QStringLiteral("Settings…")), &QAction::triggered, this,
            &TrayIcon::settingsRequested);
    menu_->addSeparator();
    connect(menu_->addAction(QStringLiteral("Quit Corvane")), &QAction::triggered, this,
            &TrayIcon::quitRequested);
}

void TrayIcon::connectToModel(AppModel& model) {
    setRows(model.rows());
    connect(&model, &AppModel::rowsChanged, this, [this, &model] { setRows(model.rows()); });
    connect(this, &TrayIcon::unlockRequested, &model,
            [&model](const std::string& path) { spawn(model.unlock(path)); });
    connect(this, &TrayIcon::lockNowRequested, &model,
            [&model](const std::string& path) { spawn(model.lockNow(path)); });
    connect(this, &TrayIcon::revealRequested, &model,
            [&model](const std::string& path) { model.reveal(path); });
    connect(this, &TrayIcon::locateRequested, &model,
            [&model](const ItemRow& row) { spawn(model.locate(row)); });
    connect(this, &TrayIcon::chooseAndLockRequested, &model,
            [&model] { spawn(model.chooseAndLock()); });
    connect(this, &TrayIcon::lockAllRequested, &model, [&model] { spawn(model.lockAll()); });
}

}  // namespace corvane::app
