#include "ItemListWindow.h"

#include <QAction>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QIcon>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QStackedWidget>
#include <QToolBar>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "AppModel.h"
#include "Records/ByteCount.h"
#include "Task.h"
#include "TrayIcons.h"

namespace corvane::app {

namespace {

constexpr int rowIndexRole = Qt::UserRole;

// The model locks one path per call; several dropped at once are locked one after the other.
Task<> lockEach(AppModel& model, std::vector<std::string> paths) {
    for (auto& path : paths) co_await model.lock(std::move(path));
}

}  // namespace

ItemListWindow::ItemListWindow(QWidget* parent)
    : QMainWindow(parent),
      pages_(new QStackedWidget(this)),
      emptyPage_(new QWidget(this)),
      list_(new QTreeWidget(this)) {
    setWindowTitle(QStringLiteral("Corvane"));
    setWindowIcon(QIcon(TrayIcons::applicationIcon()));
    setAcceptDrops(true);
    resize(820, 420);

    auto* toolBar = addToolBar(QStringLiteral("Actions"));
    toolBar->setObjectName(QStringLiteral("actions"));
    toolBar->setMovable(false);
    toolBar->setFloatable(false);
    toolBar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    toolBar->toggleViewAction()->setEnabled(false);
    lockFiles_ = toolBar->addAction(QIcon::fromTheme(QStringLiteral("document-encrypt")),
                                    QStringLiteral("Lock Files or Folders…"));
    lockFiles_->setObjectName(QStringLiteral("lockFiles"));
    connect(lockFiles_, &QAction::triggered, this, &ItemListWindow::chooseAndLockRequested);
    toolBar->addSeparator();

    unlock_ = addRowAction(QStringLiteral("unlock"), QStringLiteral("Unlock"), "document-decrypt");
    lockNow_ =
        addRowAction(QStringLiteral("lockNow"), QStringLiteral("Lock Now"), "document-encrypt");
    reveal_ = addRowAction(QStringLiteral("reveal"), QStringLiteral("Show Unlocked Files"),
                           "folder-open");
    removeLock_ = addRowAction(QStringLiteral("removeLock"), QStringLiteral("Remove Lock…"),
                               "document-revert");
    forget_ = addRowAction(QStringLiteral("forget"), QStringLiteral("Forget…"), "list-remove");
    locate_ = addRowAction(QStringLiteral("locate"), QStringLiteral("Locate…"), "edit-find");
    for (auto* action : {unlock_, lockNow_, reveal_, removeLock_, forget_, locate_})
        toolBar->addAction(action);

    auto path = [this] { return selectedRow().value_or(ItemRow{}).url.value_or(std::string()); };
    connect(unlock_, &QAction::triggered, this, [this, path] { emit unlockRequested(path()); });
    connect(lockNow_, &QAction::triggered, this, [this, path] { emit lockNowRequested(path()); });
    connect(reveal_, &QAction::triggered, this, [this, path] { emit revealRequested(path()); });
    connect(removeLock_, &QAction::triggered, this,
            [this, path] { emit removeLockRequested(path()); });
    connect(forget_, &QAction::triggered, this, [this] {
        if (auto row = selectedRow()) emit forgetRequested(*row);
    });
    connect(locate_, &QAction::triggered, this, [this] {
        if (auto row = selectedRow()) emit locateRequested(*row);
    });

    list_->setObjectName(QStringLiteral("items"));
    list_->setColumnCount(4);
    list_->setHeaderLabels({QStringLiteral("Name"), QStringLiteral("Location"),
                            QStringLiteral("Size"), QStringLiteral("Status")});
    list_->setRootIsDecorated(false);
    list_->setUniformRowHeights(true);
    list_->setAllColumnsShowFocus(true);
    list_->setSelectionMode(QAbstractItemView::SingleSelection);
    list_->setSelectionBehavior(QAbstractItemView::SelectRows);
    list_->setTextElideMode(Qt::ElideMiddle);  // the ends of a path tell the most
    list_->setContextMenuPolicy(Qt::CustomContextMenu);
    list_->headerItem()->setTextAlignment(sizeColumn, Qt::AlignRight | Qt::AlignVCenter);
    auto* header = list_->header();
    header->setStretchLastSection(false);
    header->setSectionResizeMode(nameColumn, QHeaderView::Interactive);
    header->setSectionResizeMode(locationColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(sizeColumn, QHeaderView::ResizeToContents);
    header->setSectionResizeMode(statusColumn, QHeaderView::ResizeToContents);
    header->resizeSection(nameColumn, 200);
    connect(list_, &QTreeWidget::itemSelectionChanged, this, &ItemListWindow::updateActions);
    connect(list_, &QAbstractItemView::activated, this, &ItemListWindow::activate);
    connect(list_, &QWidget::customContextMenuRequested, this, &ItemListWindow::showContextMenu);

    // What to do first, where the list will be: a picture and one sentence, as a status page.
    emptyPage_->setObjectName(QStringLiteral("emptyState"));
    auto* picture = new QLabel;
    picture->setPixmap(QIcon(TrayIcons::applicationIcon()).pixmap(64));
    picture->setAlignment(Qt::AlignCenter);
    auto* hint = new QLabel(QStringLiteral(
        "Nothing is locked yet. Drag files or folders here, or right-click them in your file "
        "manager and choose Lock with Corvane."));
    hint->setObjectName(QStringLiteral("emptyText"));
    hint->setAlignment(Qt::AlignCenter);
    hint->setWordWrap(true);
    hint->setForegroundRole(QPalette::PlaceholderText);
    auto* column = new QVBoxLayout(emptyPage_);
    column->addStretch();
    column->addWidget(picture);
    column->addSpacing(12);
    // Stretch on both sides keeps the sentence in a readable column on a wide window.
    auto* middle = new QHBoxLayout;
    middle->addStretch(1);
    middle->addWidget(hint, 3);
    middle->addStretch(1);
    column->addLayout(middle);
    column->addStretch();

    pages_->addWidget(emptyPage_);
    pages_->addWidget(list_);
    setCentralWidget(pages_);
    list_->setFocus();  // keyboard users start in the list, not on a toolbar button
    updateActions();
}

QAction* ItemListWindow::addRowAction(const QString& objectName, const QString& text,
                                      const char* icon) {
    auto* action = new QAction(QIcon::fromTheme(QString::fromLatin1(icon)), text, this);
    action->setObjectName(objectName);
    return action;
}

QString ItemListWindow::statusText(const ItemRow& row) {
    QString text = !row.url     ? QStringLiteral("Can't find this item")
                   : row.isOpen ? QStringLiteral("Unlocked")
                                : QStringLiteral("Locked");
    if (row.needsPasswordUpdate) text += QStringLiteral(" · Needs password update");
    return text;
}

void ItemListWindow::setRows(std::vector<ItemRow> rows) {
    auto selected = selectedRow();
    rows_ = std::move(rows);

    QSignalBlocker blocker(list_);
    list_->clear();
    // The glyph in the colour that shows on the list, and on the selection's highlight.
    QPalette palette = list_->palette();
    auto glyph = [&palette](bool open) {
        QIcon icon(TrayIcons::trayIcon(palette.color(QPalette::Base), open));
        icon.addFile(TrayIcons::trayIcon(palette.color(QPalette::Highlight), open), QSize(),
                     QIcon::Selected);
        return icon;
    };
    QTreeWidgetItem* current = nullptr;
    for (std::size_t index = 0; index < rows_.size(); ++index) {
        const ItemRow& row = rows_[index];
        auto* item = new QTreeWidgetItem(list_);
        item->setData(nameColumn, rowIndexRole, static_cast<qulonglong>(index));
        // Names are bytes; decoded here for the eye only.
        item->setText(nameColumn, QFile::decodeName(QByteArray::fromStdString(row.name)));
        item->setIcon(nameColumn, glyph(row.isOpen));
        item->setText(locationColumn, QFile::decodeName(QByteArray::fromStdString(row.location)));
        if (row.url)
            item->setToolTip(locationColumn,
                             QFile::decodeName(QByteArray::fromStdString(*row.url)));
        if (row.size) item->setText(sizeColumn, QString::fromStdString(ByteCount::file(*row.size)));
        item->setTextAlignment(sizeColumn, Qt::AlignRight | Qt::AlignVCenter);
        item->setText(statusColumn, statusText(row));
        if (selected && selected->id == row.id) current = item;
    }
    if (current) list_->setCurrentItem(current);
    pages_->setCurrentWidget(rows_.empty() ? emptyPage_ : list_);
    updateActions();
}

std::optional<ItemRow> ItemListWindow::selectedRow() const {
    auto selection = list_->selectedItems();
    if (selection.isEmpty()) return std::nullopt;
    auto index = selection.front()->data(nameColumn, rowIndexRole).toULongLong();
    if (index >= rows_.size()) return std::nullopt;
    return rows_[index];
}

void ItemListWindow::present() {
    if (isMinimized()) showNormal();
    show();
    raise();
    activateWindow();
}

void ItemListWindow::updateActions() {
    auto row = selectedRow();
    bool found = row && row->url;
    bool open = found && row->isOpen;
    unlock_->setEnabled(found && !open);
    lockNow_->setEnabled(open);
    reveal_->setEnabled(open);
    removeLock_->setEnabled(found && !open);
    forget_->setEnabled(row.has_value());
    locate_->setEnabled(row && !row->url);
}

void ItemListWindow::activate(const QModelIndex& index) {
    auto position = index.siblingAtColumn(nameColumn).data(rowIndexRole).toULongLong();
    if (!index.isValid() || position >= rows_.size()) return;
    const ItemRow& row = rows_[position];
    if (!row.url)
        emit locateRequested(row);
    else if (row.isOpen)
        emit revealRequested(*row.url);
    else
        emit unlockRequested(*row.url);
}

void ItemListWindow::showContextMenu(const QPoint& position) {
    auto* item = list_->itemAt(position);
    if (item) list_->setCurrentItem(item);
    QMenu menu(this);
    if (item) {
        // Only what applies to this item: a menu of greyed entries says little.
        for (auto* action : {unlock_, lockNow_, reveal_, removeLock_, forget_, locate_})
            if (action->isEnabled()) menu.addAction(action);
        menu.addSeparator();
    }
    menu.addAction(lockFiles_);
    menu.exec(list_->viewport()->mapToGlobal(position));
}

std::vector<std::string> ItemListWindow::localPaths(const QMimeData& data) {
    std::vector<std::string> paths;
    for (const QUrl& url : data.urls()) {
        if (!url.isLocalFile()) continue;
        if (!url.host().isEmpty() && url.host() != QStringLiteral("localhost")) continue;
        // The encoded path holds the name's very bytes; toLocalFile() would read them as UTF-8
        // and replace those that are not.
        QByteArray path = QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1());
        if (path.startsWith('/') && !path.contains('\0')) paths.push_back(path.toStdString());
    }
    return paths;
}

void ItemListWindow::changeEvent(QEvent* event) {
    // A theme turned dark or light: the glyphs are picked anew for the list's colours.
    if (event->type() == QEvent::PaletteChange) setRows(rows_);
    QMainWindow::changeEvent(event);
}

void ItemListWindow::dragEnterEvent(QDragEnterEvent* event) {
    dragMoveEvent(event);
}

void ItemListWindow::dragMoveEvent(QDragMoveEvent* event) {
    if (event->mimeData() && !localPaths(*event->mimeData()).empty())
        event->acceptProposedAction();
    else
        event->ignore();
}

void ItemListWindow::dropEvent(QDropEvent* event) {
    auto paths = event->mimeData() ? localPaths(*event->mimeData()) : std::vector<std::string>();
    if (paths.empty()) return event->ignore();
    event->acceptProposedAction();
    emit lockRequested(paths);
}

void ItemListWindow::connectToModel(AppModel& model) {
    setRows(model.rows());
    connect(&model, &AppModel::rowsChanged, this, [this, &model] { setRows(model.rows()); });
    connect(this, &ItemListWindow::unlockRequested, &model,
            [&model](const std::string& path) { spawn(model.unlock(path)); });
    connect(this, &ItemListWindow::lockNowRequested, &model,
            [&model](const std::string& path) { spawn(model.lockNow(path)); });
    connect(this, &ItemListWindow::revealRequested, &model,
            [&model](const std::string& path) { model.reveal(path); });
    connect(this, &ItemListWindow::removeLockRequested, &model,
            [&model](const std::string& path) { spawn(model.removeLock(path)); });
    connect(this, &ItemListWindow::forgetRequested, &model,
            [&model](const ItemRow& row) { spawn(model.forget(row)); });
    connect(this, &ItemListWindow::locateRequested, &model,
            [&model](const ItemRow& row) { spawn(model.locate(row)); });
    connect(this, &ItemListWindow::chooseAndLockRequested, &model,
            [&model] { spawn(model.chooseAndLock()); });
    connect(this, &ItemListWindow::lockRequested, &model,
            [&model](const std::vector<std::string>& paths) { spawn(lockEach(model, paths)); });
}

}  // namespace corvane::app
