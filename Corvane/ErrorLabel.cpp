#include "ErrorLabel.h"

namespace corvane::app {

ErrorLabel::ErrorLabel(QWidget* parent) : QLabel(parent) {
    setTextFormat(Qt::PlainText);
    setWordWrap(true);
    QPalette alarm = palette();
    alarm.setColor(QPalette::WindowText, QColor(0xc0, 0x1c, 0x28));
    setPalette(alarm);
    hide();
}

}  // namespace corvane::app
