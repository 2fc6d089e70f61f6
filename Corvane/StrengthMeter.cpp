#include "StrengthMeter.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>

#include "Records/PasswordRules.h"

namespace corvane::app {

StrengthMeter::StrengthMeter(QWidget* parent)
    : QWidget(parent), bar_(new QProgressBar), label_(new QLabel) {
    bar_->setRange(0, 3);
    bar_->setValue(0);
    bar_->setTextVisible(false);
    bar_->setMaximumHeight(8);
    label_->setMinimumWidth(label_->fontMetrics().horizontalAdvance(QStringLiteral("Strong")));
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(bar_, 1);
    row->addWidget(label_);
}

void StrengthMeter::setPassword(const QString& password) {
    if (password.isEmpty()) {
        bar_->setValue(0);
        label_->clear();
        return;
    }
    QByteArray text = password.toUtf8();
    auto strength = PasswordRules::strength(std::string_view(text.constData(), text.size()));
    static const char* const names[] = {"Weak", "Fair", "Strong"};
    bar_->setValue(static_cast<int>(strength) + 1);
    label_->setText(QString::fromLatin1(names[static_cast<int>(strength)]));
}

QString StrengthMeter::label() const {
    return label_->text();
}

}  // namespace corvane::app
