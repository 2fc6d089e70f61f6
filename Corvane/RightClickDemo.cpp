#include "RightClickDemo.h"

#include <QPainter>
#include <QPainterPath>

namespace corvane::app {

RightClickDemo::RightClickDemo(QWidget* parent) : QWidget(parent) {
    setMinimumSize(sizeHint());
    timer_.setInterval(900);
    connect(&timer_, &QTimer::timeout, this, [this] {
        frame_ = (frame_ + 1) % frameCount;
        update();
    });
    timer_.start();
}

void RightClickDemo::freeze() {
    timer_.stop();
    frame_ = 2;
    update();
}

void RightClickDemo::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPalette& colors = palette();
    QPointF origin((width() - 300) / 2.0, (height() - 140) / 2.0);
    painter.translate(origin);

    // A file with a folded corner and its name.
    QPainterPath page;
    page.moveTo(30, 30);
    page.lineTo(62, 30);
    page.lineTo(76, 44);
    page.lineTo(76, 90);
    page.lineTo(30, 90);
    page.closeSubpath();
    painter.setPen(QPen(colors.color(QPalette::Mid), 1.5));
    painter.setBrush(colors.color(QPalette::Base));
    painter.drawPath(page);
    painter.setPen(colors.color(QPalette::Text));
    painter.drawText(QRectF(10, 96, 86, 20), Qt::AlignCenter, QStringLiteral("Taxes.pdf"));

    // The pointer travels onto the file, then stays while the menu is open.
    QPointF tip = frame_ == 0 ? QPointF(20, 120) : QPointF(72, 62);
    QPolygonF arrow({tip, tip + QPointF(0, 17), tip + QPointF(4.5, 13), tip + QPointF(8, 20),
                     tip + QPointF(10.5, 19), tip + QPointF(7, 12), tip + QPointF(12.5, 12)});
    if (frame_ > 0) {
        QRectF menu(tip.x() + 16, tip.y() - 40, 170, 104);
        painter.setPen(QPen(colors.color(QPalette::Mid), 1));
        painter.setBrush(colors.color(QPalette::Window));
        painter.drawRoundedRect(menu, 5, 5);
        const QString entries[] = {QStringLiteral("Open"), QStringLiteral("Copy"),
                                   QStringLiteral("Lock with Corvane"), QStringLiteral("Rename…")};
        for (int i = 0; i < 4; ++i) {
            QRectF row(menu.left() + 4, menu.top() + 4 + i * 24, menu.width() - 8, 24);
            bool lit = i == 2 && frame_ >= 2;
            if (lit) {
                painter.setPen(Qt::NoPen);
                painter.setBrush(colors.color(QPalette::Highlight));
                painter.drawRoundedRect(row, 3, 3);
            }
            painter.setPen(colors.color(lit ? QPalette::HighlightedText : QPalette::WindowText));
            painter.drawText(row.adjusted(10, 0, 0, 0), Qt::AlignVCenter, entries[i]);
        }
    }
    painter.setPen(QPen(Qt::white, 1));
    painter.setBrush(Qt::black);
    painter.drawPolygon(arrow);
}

}  // namespace corvane::app
