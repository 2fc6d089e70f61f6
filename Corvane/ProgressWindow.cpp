#include "ProgressWindow.h"

#include <QGuiApplication>
#include <QHBoxLayout>
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
      cancel_(new QPushButton(QStringLiteral("Cancel"))) {
    setWindowTitle(QStringLiteral("Corvane"));
    setFixedSize(380, 70);
    // Wide enough for "999.9 MB of 999.9 MB" inside the bar, so the window never grows.
    bar_->setFixedWidth(150);
    message_->setTextFormat(Qt::PlainText);
    message_->setWordWrap(true);
    auto* row = new QHBoxLayout(this);
    row->addWidget(bar_);
    row->addWidget(message_, 1);
    row->addWidget(cancel_);
    connect(cancel_, &QPushButton::clicked, this, [this] {
        // The callback may show or close this window again; it runs on its own copy.
        if (auto cancel = onCancel_) cancel();
    });
}

void ProgressWindow::show(const std::string& message, std::function<void()> onCancel) {
    message_->setText(QString::fromStdString(message));
    onCancel_ = std::move(onCancel);
    bar_->setRange(0, 0);
    bar_->setTextVisible(false);
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
    bar_->setFormat(QStringLiteral("%1 of %2")
                        .arg(QString::fromStdString(ByteCount::file(done)),
                             QString::fromStdString(ByteCount::file(total))));
    bar_->setTextVisible(true);
}

void ProgressWindow::close() {
    hide();
    onCancel_ = nullptr;
}

QString ProgressWindow::message() const {
    return message_->text();
}

QString ProgressWindow::barText() const {
    return determinate() ? bar_->text() : QString();
}

bool ProgressWindow::determinate() const {
    return bar_->maximum() > 0;
}

}  // namespace corvane::app
