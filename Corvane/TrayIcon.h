// The icon in the panel's status area and its menu: each item with its state and what can be done
// with it, then the application's commands. The glyph follows the desktop's light or dark theme
// and shows whether anything is unlocked. Main thread only.
#pragma once

#include <QObject>
#include <QSystemTrayIcon>
#include <memory>
#include <string>
#include <vector>

#include "ItemRow.h"

class QMenu;

namespace corvane::app {

class AppModel;

class TrayIcon : public QObject {
    Q_OBJECT

public:
    explicit TrayIcon(QObject* parent = nullptr);
    ~TrayIcon() override;

    void setRows(std::vector<ItemRow> rows);
    void show();

    QMenu* menu() const { return menu_.get(); }
    // The resource of the glyph shown now.
    const QString& iconPath() const { return iconPath_; }

    // Follows the model's rows and hands it the item requests and the lock commands; showing the
    // window, the settings and quitting are left to whoever owns those.
    void connectToModel(AppModel& model);

signals:
    void showWindowRequested();
    void unlockRequested(const std::string& path);
    void lockNowRequested(const std::string& path);
    void revealRequested(const std::string& path);
    void locateRequested(const ItemRow& row);
    void chooseAndLockRequested();
    void lockAllRequested();
    void settingsRequested();
    void quitRequested();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void rebuildMenu();
    void updateIcon();

    std::vector<ItemRow> rows_;
    QString iconPath_;
    std::unique_ptr<QMenu> menu_;  // before tray_, which must let go of it first
    QSystemTrayIcon tray_;
};

}  // namespace corvane::app
