#include "ProgressWindow.h"

#include <QGridLayout>
#include <QGuiApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <algorithm>

#include "Records/ByteCount.h"

namespace corvane::app {

namespace {
constexpr int barSteps = 1000;
}

ProgressWindow::ProgressWindow(QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::WindowStaysOnTopHint),
      bar_(new QProgressBar),
      message_(new QLabel),
      bytes_(new QLabel),
      cancel_(new QPushButton(QStringLiteral("Cancel"))) {
    setWindowTitle(QStringLiteral("Corvane"));
    setFixedSize(380, 70);
    // The message and "Cancel" above, the bar and the bytes done below: nothing wraps or
    // overlaps in the fixed size, whatever the name.
    message_->setTextFormat(Qt::PlainText);
    bar_->setTextVisible(false);
    bar_->setMaximumHeight(14);
    bytes_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    auto* grid = new QGridLayout(this);
    grid->setContentsMargins(12, 8, 12, 8);
    grid->setVerticalSpacing(4);
    grid->addWidget(message_, 0, 0);
    grid->addWidget(cancel_, 0, 1);
    grid->addWidget(bar_, 1, 0);
    grid->addWidget(bytes_, 1, 1);
    grid->setColumnStretch(0, 1);
    connect(cancel_, &QPushButton::clicked, this, [this] {
        // The callback may show or close this window again; it runs on its own copy.
        if (auto cancel = onCancel_) cancel();
    });
}

void ProgressWindow::show(const std::string& message, std::function<void()> onCancel) {
    fullMessage_ = QString::fromStdString(message);
    showMessage();
    onCancel_ = std::move(onCancel);
    bar_->setRange(0, 0);
    bytes_->clear();
    if (!placed_) {
        if (QScreen* screen = QGuiApplication::primaryScreen())
            move(screen->availableGeometry().center() - rect().center());
        placed_ = true;
    }
    QWidget::show();
    raise();
}

void ProgressWindow::showBytes(std::int64_t done, std::int64_t total) {
    if (total <= 0) return;
    done = std::clamp<std::int64_t>(done, 0, total);
    bar_->setRange(0, barSteps);
    bar_->setValue(static_cast<int>(done * barSteps / total));
    bytes_->setText(QStringLiteral("%1 of %2")
                        .arg(QString::fromStdString(ByteCount::file(done)),
                             QString::fromStdString(ByteCount::file(total))));
}

void ProgressWindow::showMessage() {
    int room = width() - cancel_->sizeHint().width() - 40;
    message_->setText(message_->fontMetrics().elidedText(fullMessage_, Qt::ElideMiddle, room));
    message_->setToolTip(fullMessage_);
}

void ProgressWindow::close() {
    hide();
    onCancel_ = nullptr;
}

QString ProgressWindow::message() const {
    return fullMessage_;
}

QString ProgressWindow::barText() const {
    return determinate() ? bytes_->text() : QString();
}

bool ProgressWindow::determinate() const {
    return bar_->maximum() > 0;
}

}  // namespace corvane::app
