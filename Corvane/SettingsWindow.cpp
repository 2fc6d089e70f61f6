#include "SettingsWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>

#include "ErrorLabel.h"
#include "Records/IdlePolicy.h"

namespace corvane::app {

SettingsWindow::SettingsWindow(Seams seams, QWidget* parent)
    : QWidget(parent),
      seams_(std::move(seams)),
      idle_(new QComboBox),
      idleUnavailable_(
          new QLabel(QStringLiteral("Locking after inactivity is not available on this desktop."))),
      fingerprint_(new QCheckBox(QStringLiteral("Use fingerprint to unlock"))),
      startAtLogin_(new QCheckBox(QStringLiteral("Start Corvane when you log in"))),
      fileManagerMenu_(new QCheckBox(QStringLiteral("File manager menu"))),
      error_(new ErrorLabel) {
    setWindowTitle(QStringLiteral("Corvane Settings"));
    setMinimumWidth(360);
    for (int minutes : IdlePolicy::choices) idle_->addItem(idleChoiceName(minutes), minutes);
    auto* changePassword = new QPushButton(QStringLiteral("Change Password…"));
    auto* form = new QFormLayout(this);
    form->setContentsMargins(18, 18, 18, 18);
    form->setVerticalSpacing(10);
    form->addRow(QStringLiteral("Lock after inactivity"), idle_);
    idleUnavailable_->setWordWrap(true);
    form->addRow(idleUnavailable_);
    form->addRow(fingerprint_);
    form->addRow(startAtLogin_);
    form->addRow(fileManagerMenu_);
    form->addRow(error_);
    form->addRow(changePassword);

    // Only the user's own changes reach the seams; reload() sets the controls without them.
    connect(idle_, &QComboBox::activated, this,
            [this](int index) { seams_.setIdleMinutes(idle_->itemData(index).toInt()); });
    connect(fingerprint_, &QCheckBox::clicked, this,
            [this](bool on) { seams_.setFingerprintEnabled(on); });
    connect(startAtLogin_, &QCheckBox::clicked, this,
            [this](bool on) { seams_.setStartsAtLogin(on); });
    connect(fileManagerMenu_, &QCheckBox::clicked, this, &SettingsWindow::switchFileManagerMenu);
    connect(changePassword, &QPushButton::clicked, this, &SettingsWindow::openChangePassword);
}

QString SettingsWindow::idleChoiceName(int minutes) {
    if (minutes <= 0) return QStringLiteral("Never");
    if (minutes % 60 == 0)
        return minutes == 60 ? QStringLiteral("1 hour")
                             : QStringLiteral("%1 hours").arg(minutes / 60);
    return minutes == 1 ? QStringLiteral("1 minute") : QStringLiteral("%1 minutes").arg(minutes);
}

void SettingsWindow::reload() {
    idle_->setCurrentIndex(idle_->findData(seams_.idleMinutes()));
    idleUnavailable_->setVisible(!seams_.idleAvailable());
    fingerprint_->setEnabled(seams_.fingerprintAvailable());
    fingerprint_->setChecked(seams_.fingerprintEnabled());
    startAtLogin_->setChecked(seams_.startsAtLogin());
    fileManagerMenu_->setChecked(seams_.fileManagerMenuEnabled());
}

void SettingsWindow::showEvent(QShowEvent* event) {
    reload();
    QWidget::showEvent(event);
}

void SettingsWindow::switchFileManagerMenu(bool on) {
    auto failure = seams_.setFileManagerMenu(on);
    error_->setText(failure ? QString::fromStdString(*failure) : QString());
    error_->setVisible(failure.has_value());
    fileManagerMenu_->setChecked(seams_.fileManagerMenuEnabled());
}

ChangePasswordDialog* SettingsWindow::openChangePassword() {
    if (!changePassword_) {
        changePassword_ = new ChangePasswordDialog(seams_.changePassword, this);
        changePassword_->setAttribute(Qt::WA_DeleteOnClose);
    }
    changePassword_->show();
    changePassword_->raise();
    changePassword_->activateWindow();
    return changePassword_;
}

QString SettingsWindow::error() const {
    return error_->text();
}

}  // namespace corvane::app
