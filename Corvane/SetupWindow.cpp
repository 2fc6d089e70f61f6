#include "SetupWindow.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>
#include <string_view>

#include "ErrorLabel.h"
#include "Records/PasswordRules.h"
#include "RightClickDemo.h"
#include "StrengthMeter.h"

namespace corvane::app {

namespace {

QLabel* paragraph(const QString& text) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setTextFormat(Qt::PlainText);
    return label;
}

}  // namespace

SetupWindow::SetupWindow(Seams seams, QWidget* parent)
    : QWidget(parent),
      seams_(std::move(seams)),
      pages_(new QStackedWidget),
      error_(new ErrorLabel),
      back_(new QPushButton(QStringLiteral("Back"))),
      next_(new QPushButton) {
    setWindowTitle(QStringLiteral("Corvane"));
    setMinimumWidth(520);
    for (QWidget* page : {welcomePage(), passwordPage(), fingerprintPage(), fileManagerPage(),
                          diskProtectionPage(), donePage()})
        pages_->addWidget(page);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(back_);
    buttons->addWidget(next_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 24, 24, 18);
    layout->addWidget(pages_, 1);
    layout->addWidget(error_);
    layout->addLayout(buttons);

    connect(back_, &QPushButton::clicked, this, [this] { move(-1); });
    connect(next_, &QPushButton::clicked, this, &SetupWindow::advance);
    enter(welcome);
}

QWidget* SetupWindow::page(const QString& title, const QString& body) {
    auto* page = new QWidget;
    auto* heading = paragraph(title);
    QFont font = heading->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.4);
    heading->setFont(font);
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(heading);
    if (!body.isEmpty()) layout->addWidget(paragraph(body));
    return page;
}

QWidget* SetupWindow::welcomePage() {
    QWidget* welcome = page(
        QStringLiteral("Lock anything on your computer"),
        QStringLiteral(
            "Right-click any file or folder and choose Lock with Corvane. What is inside disappears from search, Recent files and previews until you unlock it."));
    demo_ = new RightClickDemo;
    welcome->layout()->addWidget(demo_);
    static_cast<QVBoxLayout*>(welcome->layout())->addStretch();
    return welcome;
}

QWidget* SetupWindow::passwordPage() {
    QWidget* form = page(
        QStringLiteral("Create your Corvane password"),
        QStringLiteral(
            "One password protects everything you lock. With a fingerprint reader you will mostly use your fingerprint."));
    passwordField_ = new QLineEdit;
    confirmationField_ = new QLineEdit;
    passwordField_->setObjectName(QStringLiteral("password"));
    confirmationField_->setObjectName(QStringLiteral("confirmation"));
    for (QLineEdit* field : {passwordField_, confirmationField_}) {
        field->setEchoMode(QLineEdit::Password);
        connect(field, &QLineEdit::textChanged, this, &SetupWindow::updateButtons);
        connect(field, &QLineEdit::returnPressed, this, &SetupWindow::advance);
    }
    meter_ = new StrengthMeter;
    connect(passwordField_, &QLineEdit::textChanged, meter_, &StrengthMeter::setPassword);
    understood_ = new QCheckBox(
        QStringLiteral("I understand there is no way to recover a forgotten password."));
    connect(understood_, &QCheckBox::toggled, this, &SetupWindow::updateButtons);

    auto* layout = static_cast<QVBoxLayout*>(form->layout());
    layout->addSpacing(8);
    layout->addWidget(new QLabel(QStringLiteral("Password")));
    layout->addWidget(passwordField_);
    layout->addWidget(meter_);
    layout->addWidget(new QLabel(QStringLiteral("Confirm password")));
    layout->addWidget(confirmationField_);
    layout->addSpacing(8);
    layout->addWidget(understood_);
    layout->addStretch();
    return form;
}

QWidget* SetupWindow::fingerprintPage() {
    QWidget* choice =
        page(QStringLiteral("Unlock with your fingerprint"),
             QStringLiteral(
                 "Touch the reader to unlock. Your password still works whenever you prefer it."));
    useFingerprint_ = new QCheckBox(QStringLiteral("Use fingerprint to unlock"));
    useFingerprint_->setChecked(true);
    choice->layout()->addWidget(useFingerprint_);
    static_cast<QVBoxLayout*>(choice->layout())->addStretch();
    return choice;
}

QWidget* SetupWindow::fileManagerPage() {
    QWidget* menu = page(
        QStringLiteral("Turn on the file manager menu"),
        QStringLiteral(
            "This adds Lock with Corvane to the menu you get when you right-click a file or folder."));
    menuButton_ = new QPushButton(QStringLiteral("Turn On File Manager Menu"));
    connect(menuButton_, &QPushButton::clicked, this, &SetupWindow::turnOnFileManagerMenu);
    menuAdded_ = paragraph(QStringLiteral(
        "Corvane added its menu to Files, Dolphin, Thunar and Nemo. Restart your file manager if the entries do not appear yet."));
    menuOn_ = paragraph(QStringLiteral("The file manager menu is on"));
    menuAdded_->hide();
    auto* layout = static_cast<QVBoxLayout*>(menu->layout());
    layout->addSpacing(8);
    layout->addWidget(menuButton_, 0, Qt::AlignLeft);
    layout->addWidget(menuOn_);
    layout->addWidget(menuAdded_);
    layout->addStretch();
    return menu;
}

QWidget* SetupWindow::diskProtectionPage() {
    QWidget* disk = page(QStringLiteral("Disk protection"), {});
    diskState_ = paragraph({});
    auto* layout = static_cast<QVBoxLayout*>(disk->layout());
    layout->addWidget(diskState_);
    layout->addStretch();
    return disk;
}

QWidget* SetupWindow::donePage() {
    QWidget* last = page(
        QStringLiteral("You are all set"),
        QStringLiteral(
            "Right-click any file or folder in your file manager and choose Lock with Corvane. To open it again, choose Unlock with Corvane."));
    auto* layout = static_cast<QVBoxLayout*>(last->layout());
    layout->addSpacing(8);
    layout->addWidget(paragraph(QStringLiteral(
        "Good to know: copies made before you lock, such as backups, are not changed. Each locked item takes about 1% more space than the original.")));
    layout->addStretch();
    return last;
}

int SetupWindow::step() const {
    return pages_->currentIndex();
}

bool SetupWindow::canAdvance() const {
    if (step() == welcome) return !seams_.keyringProblem;
    if (step() != password) return true;
    return !passwordField_->text().isEmpty() && !confirmationField_->text().isEmpty() &&
           understood_->isChecked();
}

std::optional<std::string> SetupWindow::passwordProblem() const {
    QByteArray typed = passwordField_->text().toUtf8();
    std::string_view view(typed.constData(), static_cast<std::size_t>(typed.size()));
    if (auto problem = PasswordRules::inputProblem(view)) return problem;
    if (auto problem = PasswordRules::problem(view)) return problem;
    if (passwordField_->text() != confirmationField_->text()) return "The passwords do not match.";
    return std::nullopt;
}

void SetupWindow::advance() {
    if (!canAdvance()) return;
    if (step() == password) {
        if (auto problem = passwordProblem()) return showError(problem);
    } else if (step() == done) {
        // Saved as chosen even without a reader today, so that one added later is used.
        bool useFingerprint = useFingerprint_->isChecked();
        if (auto failure =
                seams_.save(passwordField_->text().toUtf8().toStdString(), useFingerprint))
            return showError(failure);
        passwordField_->clear();
        confirmationField_->clear();
        emit finished();
        return;
    }
    move(1);
}

void SetupWindow::move(int by) {
    int target = step() + by;
    if (target == fingerprint && !seams_.fingerprintAvailable) target += by > 0 ? 1 : -1;
    if (by == 0 || target < welcome || target > done) return;
    enter(target);
}

void SetupWindow::enter(int step) {
    pages_->setCurrentIndex(step);
    showError(step == welcome ? seams_.keyringProblem : std::nullopt);
    if (step == fileManager) {
        bool on = seams_.fileManagerMenuEnabled();
        menuButton_->setVisible(!on);
        menuOn_->setVisible(on);
    } else if (step == diskProtection && diskState_->text().isEmpty()) {
        diskState_->setText(
            seams_.diskEncryptionOn()
                ? QStringLiteral("Disk encryption is on. Deleted originals stay protected.")
                : QStringLiteral(
                      "Disk encryption is off. Without it, pieces of deleted originals can stay readable on your disk. Corvane works either way, but full-disk encryption closes that gap."));
    } else if (step == password) {
        passwordField_->setFocus();
    }
    updateButtons();
}

void SetupWindow::turnOnFileManagerMenu() {
    if (auto failure = seams_.enableFileManagerMenu()) return showError(failure);
    showError(std::nullopt);
    menuButton_->hide();
    menuOn_->show();
    menuAdded_->show();
}

void SetupWindow::showError(const std::optional<std::string>& error) {
    error_->setText(error ? QString::fromStdString(*error) : QString());
    error_->setVisible(error.has_value());
}

void SetupWindow::updateButtons() {
    back_->setVisible(step() != welcome);
    next_->setText(step() == welcome ? QStringLiteral("Get Started")
                   : step() == done  ? QStringLiteral("Start Using Corvane")
                                     : QStringLiteral("Continue"));
    next_->setEnabled(canAdvance());
}

void SetupWindow::showStep(int step) {
    if (step >= welcome && step <= done) enter(step);
}

void SetupWindow::setPasswordFields(const QString& password, const QString& confirmation,
                                    bool understood) {
    passwordField_->setText(password);
    confirmationField_->setText(confirmation);
    understood_->setChecked(understood);
}

void SetupWindow::freezeDemo() {
    demo_->freeze();
}

QString SetupWindow::error() const {
    return error_->text();
}

}  // namespace corvane::app
