#include "ChangePasswordDialog.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include "ErrorLabel.h"
#include "StrengthMeter.h"

namespace corvane::app {

ChangePasswordDialog::ChangePasswordDialog(Change change, QWidget* parent)
    : QDialog(parent),
      change_(std::move(change)),
      current_(new QLineEdit),
      next_(new QLineEdit),
      confirmation_(new QLineEdit),
      meter_(new StrengthMeter),
      error_(new ErrorLabel) {
    setWindowTitle(QStringLiteral("Change Password"));
    auto* form = new QFormLayout(this);
    form->addRow(QStringLiteral("Current password"), current_);
    form->addRow(QStringLiteral("New password"), next_);
    form->addRow(QString(), meter_);
    form->addRow(QStringLiteral("Confirm new password"), confirmation_);
    for (QLineEdit* field : {current_, next_, confirmation_}) {
        field->setEchoMode(QLineEdit::Password);
        field->setMinimumWidth(260);
        connect(field, &QLineEdit::textChanged, this, &ChangePasswordDialog::updateButtons);
    }
    connect(next_, &QLineEdit::textChanged, meter_, &StrengthMeter::setPassword);

    form->addRow(error_);

    auto* buttons = new QDialogButtonBox;
    submit_ = buttons->addButton(QStringLiteral("Change Password"), QDialogButtonBox::AcceptRole);
    cancel_ = buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    submit_->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &ChangePasswordDialog::submit);
    connect(buttons, &QDialogButtonBox::rejected, this, &ChangePasswordDialog::reject);
    form->addRow(buttons);
    updateButtons();
}

void ChangePasswordDialog::submit() {
    if (!submit_->isEnabled()) return;
    if (next_->text() != confirmation_->text())
        return showError(QStringLiteral("The passwords do not match."));
    showError({});
    setBusy(true);
    spawn(run(this, change_(current_->text().toUtf8().toStdString(),
                            next_->text().toUtf8().toStdString())));
}

Task<> ChangePasswordDialog::run(QPointer<ChangePasswordDialog> self,
                                 Task<std::optional<std::string>> change) {
    std::optional<std::string> failure;
    try {
        failure = co_await std::move(change);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (!self) co_return;
    self->setBusy(false);
    if (failure) {
        self->showError(QString::fromStdString(*failure));
        co_return;
    }
    for (QLineEdit* field : {self->current_, self->next_, self->confirmation_}) field->clear();
    self->accept();
}

void ChangePasswordDialog::reject() {
    if (!busy_) QDialog::reject();
}

QString ChangePasswordDialog::error() const {
    return error_->text();
}

void ChangePasswordDialog::setBusy(bool busy) {
    busy_ = busy;
    for (QLineEdit* field : {current_, next_, confirmation_}) field->setReadOnly(busy);
    updateButtons();
}

void ChangePasswordDialog::showError(const QString& error) {
    error_->setText(error);
    error_->setVisible(!error.isEmpty());
}

void ChangePasswordDialog::updateButtons() {
    bool filled =
        !current_->text().isEmpty() && !next_->text().isEmpty() && !confirmation_->text().isEmpty();
    submit_->setEnabled(filled && !busy_);
    cancel_->setEnabled(!busy_);
}

}  // namespace corvane::app
