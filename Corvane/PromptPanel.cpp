#include "PromptPanel.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>
#include <algorithm>
#include <memory>
#include <utility>

namespace corvane::app {

namespace {

const QString corvane = QStringLiteral("Corvane");

// There is no main window to sit in front of, so each dialog comes forward on its own.
int runModal(QDialog& dialog) {
    // Modal before it is first shown: exec() cannot make a visible window modal any more.
    dialog.setWindowModality(Qt::ApplicationModal);
    dialog.show();
    dialog.raise();
    dialog.activateWindow();
    return dialog.exec();
}

QLabel* plainLabel(const std::string& text) {
    auto* label = new QLabel(QString::fromStdString(text));
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    return label;
}

// Qt's own accept button opens a selected folder instead of returning it, so the chooser gets a
// button of ours that takes the selection as it is, whenever `acceptable` allows it.
QStringList runChooser(QFileDialog& dialog, const QString& acceptLabel,
                       std::function<bool(const QStringList&)> acceptable) {
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    dialog.setDirectory(QDir::home());
    auto* box = dialog.findChild<QDialogButtonBox*>();
    QPushButton* stock = box->button(QDialogButtonBox::Open);
    stock->hide();
    stock->setDefault(false);
    QObject::disconnect(box, &QDialogButtonBox::accepted, &dialog, nullptr);
    QPushButton* ours = box->addButton(acceptLabel, QDialogButtonBox::AcceptRole);
    ours->setDefault(true);
    auto update = [&] { ours->setEnabled(acceptable(dialog.selectedFiles())); };
    QObject::connect(box, &QDialogButtonBox::accepted, &dialog, [&] {
        if (acceptable(dialog.selectedFiles()))
            static_cast<QDialog&>(dialog).done(QDialog::Accepted);
    });
    QObject::connect(dialog.findChild<QListView*>(QStringLiteral("listView"))->selectionModel(),
                     &QItemSelectionModel::selectionChanged, ours, update);
    QObject::connect(&dialog, &QFileDialog::directoryEntered, ours, update);
    QObject::connect(dialog.findChild<QLineEdit*>(QStringLiteral("fileNameEdit")),
                     &QLineEdit::textChanged, ours, update);
    update();
    if (runModal(dialog) != QDialog::Accepted) return {};
    QStringList chosen = dialog.selectedFiles();
    return acceptable(chosen) ? chosen : QStringList();
}

}  // namespace

PromptPanel::~PromptPanel() {
    delete fingerprint_;
}

int PromptPanel::choose(const std::string& title, const std::string& message,
                        const std::vector<std::string>& buttons) {
    QMessageBox box;
    box.setWindowTitle(corvane);
    box.setTextFormat(Qt::PlainText);
    box.setText(QString::fromStdString(title));
    box.setInformativeText(QString::fromStdString(message));
    // Names in the message are shown as they are, never read as markup.
    for (auto* label : box.findChildren<QLabel*>()) label->setTextFormat(Qt::PlainText);
    // One role for all keeps the buttons in the caller's order on every layout.
    std::vector<QAbstractButton*> added;
    for (const std::string& text : buttons)
        added.push_back(box.addButton(QString::fromStdString(text), QMessageBox::ActionRole));
    if (!added.empty()) {
        box.setDefaultButton(static_cast<QPushButton*>(added.front()));
        box.setEscapeButton(added.back());
    }
    runModal(box);
    for (std::size_t i = 0; i < added.size(); ++i)
        if (box.clickedButton() == added[i]) return static_cast<int>(i);
    return static_cast<int>(buttons.size()) - 1;
}

std::optional<std::string> PromptPanel::password(const std::string& title,
                                                 const std::string& message) {
    QDialog dialog;
    dialog.setWindowTitle(corvane);
    QLabel* heading = plainLabel(title);
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    auto* field = new QLineEdit;
    field->setEchoMode(QLineEdit::Password);
    field->setFixedWidth(260);
    auto* box = new QDialogButtonBox;
    box->addButton(QStringLiteral("OK"), QDialogButtonBox::AcceptRole)->setDefault(true);
    box->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    QObject::connect(box, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    QObject::connect(box, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);

    auto* layout = new QVBoxLayout(&dialog);
    layout->addWidget(heading);
    if (!message.empty()) layout->addWidget(plainLabel(message));
    layout->addWidget(field);
    layout->addWidget(box);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    field->setFocus();
    if (runModal(dialog) != QDialog::Accepted) return std::nullopt;
    return field->text().toUtf8().toStdString();
}

std::vector<std::string> PromptPanel::chooseItemsToLock() {
    const QString prompt = QStringLiteral("Choose files or folders to lock.");
    QFileDialog dialog(nullptr, prompt);
    // Shows files and folders, several at once; our button takes folders as they are.
    dialog.setFileMode(QFileDialog::ExistingFiles);
    QStringList chosen = runChooser(dialog, QStringLiteral("Lock"), [](const QStringList& paths) {
        return !paths.isEmpty() && std::all_of(paths.begin(), paths.end(), [](const QString& path) {
            return QFileInfo::exists(path);
        });
    });
    std::vector<std::string> items;
    for (const QString& path : chosen) items.push_back(QFile::encodeName(path).toStdString());
    return items;
}

std::optional<std::string> PromptPanel::chooseLockedItem(const std::string& name) {
    QFileDialog dialog(nullptr, QStringLiteral("Find ") + QString::fromStdString(name));
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly);
    QStringList chosen = runChooser(dialog, QStringLiteral("Choose"), [](const QStringList& paths) {
        return paths.size() == 1 && QFileInfo(paths.front()).isDir() &&
               paths.front().endsWith(QStringLiteral(".corvlock"));
    });
    if (chosen.isEmpty()) return std::nullopt;
    return QFile::encodeName(chosen.front()).toStdString();
}

void PromptPanel::fingerprintWaiting(const std::string& reason, std::function<void()> usePassword) {
    fingerprintFinished();
    auto* dialog = new QDialog;
    dialog->setWindowTitle(corvane);
    auto* choice = new QPushButton(QStringLiteral("Use Corvane Password"));
    auto* layout = new QVBoxLayout(dialog);
    layout->addWidget(plainLabel("Touch the fingerprint reader to " + reason + "."));
    layout->addWidget(choice, 0, Qt::AlignRight);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    // Closing the notice also means the user would rather type; the model hears it once.
    auto once = std::make_shared<std::function<void()>>(std::move(usePassword));
    QObject::connect(choice, &QPushButton::clicked, dialog, &QDialog::reject);
    QObject::connect(dialog, &QDialog::rejected, dialog, [this, dialog, once] {
        if (fingerprint_ == dialog) fingerprint_ = nullptr;
        dialog->deleteLater();
        if (auto callback = std::exchange(*once, nullptr)) callback();
    });
    fingerprint_ = dialog;
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}

void PromptPanel::fingerprintFinished() {
    if (!fingerprint_) return;
    QDialog* dialog = std::exchange(fingerprint_, nullptr);
    dialog->hide();
    dialog->deleteLater();
}

}  // namespace corvane::app
