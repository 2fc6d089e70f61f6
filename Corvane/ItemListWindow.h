// The main window: every locked item with where it is, its size and its state, the actions that
// apply to the selected one, and a drop target for locking more. It shows the rows it is given
// and only emits requests, so connectToModel() is all that ties it to the model. Main thread only.
#pragma once

#include <QMainWindow>
#include <optional>
#include <string>
#include <vector>

#include "ItemRow.h"

class QAction;
class QMimeData;
class QModelIndex;
class QStackedWidget;
class QTreeWidget;

namespace corvane::app {

class AppModel;

class ItemListWindow : public QMainWindow {
    Q_OBJECT

public:
    enum Column { nameColumn, locationColumn, sizeColumn, statusColumn };

    explicit ItemListWindow(QWidget* parent = nullptr);

    // Keeps the selected item selected when it is still listed.
    void setRows(std::vector<ItemRow> rows);
    const std::vector<ItemRow>& rows() const { return rows_; }
    std::optional<ItemRow> selectedRow() const;

    // Shows the window in front, restored if it was minimised.
    void present();

    // Follows the model's rows and hands it every request.
    void connectToModel(AppModel& model);

    // "Unlocked", "Locked" or "Can't find this item", with " · Needs password update" after it
    // when that applies.
    static QString statusText(const ItemRow& row);
    // The local files among dropped URLs, as the byte paths the file system knows.
    static std::vector<std::string> localPaths(const QMimeData& data);

signals:
    void unlockRequested(const std::string& path);
    void lockNowRequested(const std::string& path);
    void revealRequested(const std::string& path);
    void removeLockRequested(const std::string& path);
    void forgetRequested(const ItemRow& row);
    void locateRequested(const ItemRow& row);
    void chooseAndLockRequested();
    void lockRequested(const std::vector<std::string>& paths);

protected:
    void changeEvent(QEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    QAction* addRowAction(const QString& objectName, const QString& text, const char* icon);
    void updateActions();
    void activate(const QModelIndex& index);
    void showContextMenu(const QPoint& position);

    std::vector<ItemRow> rows_;
    QStackedWidget* pages_;
    QWidget* emptyPage_;
    QTreeWidget* list_;
    QAction* lockFiles_;
    QAction* unlock_;
    QAction* lockNow_;
    QAction* reveal_;
    QAction* removeLock_;
    QAction* forget_;
    QAction* locate_;
};

}  // namespace corvane::app
