#include "OsIcons.h"

#include <QPainter>
#include <QPainterPath>


namespace ostv::OsIcons {

namespace {

// All glyphs are drawn on a 24 x 24 canvas and scaled.

void drawPenguin(QPainter& p, bool dark) {
    const QColor body = dark ? QColor(205, 205, 205) : QColor(45, 45, 48);
    const QColor belly = dark ? QColor(60, 60, 64) : QColor(250, 250, 250);
    const QColor orange(240, 165, 30);
    p.setPen(Qt::NoPen);
    // feet behind the body
    p.setBrush(orange);
    p.drawEllipse(QRectF(5.5, 19.0, 6.0, 3.2));
    p.drawEllipse(QRectF(12.5, 19.0, 6.0, 3.2));
    // body and head
    p.setBrush(body);
    p.drawEllipse(QRectF(5.0, 7.0, 14.0, 14.5));
    p.drawEllipse(QRectF(7.0, 1.5, 10.0, 9.5));
    // belly and face
    p.setBrush(belly);
    p.drawEllipse(QRectF(7.8, 9.5, 8.4, 11.0));
    p.drawEllipse(QRectF(8.6, 4.2, 6.8, 5.6));
    // eyes
    p.setBrush(body);
    p.drawEllipse(QRectF(9.6, 5.2, 1.7, 2.1));
    p.drawEllipse(QRectF(12.7, 5.2, 1.7, 2.1));
    // beak
    p.setBrush(orange);
    QPainterPath beak;
    beak.moveTo(10.4, 7.9);
    beak.lineTo(13.6, 7.9);
    beak.lineTo(12.0, 10.0);
    beak.closeSubpath();
    p.drawPath(beak);
}

void drawAppleFruit(QPainter& p, bool dark) {
    const QColor fruit = dark ? QColor(215, 215, 220) : QColor(70, 70, 76);
    const QColor leaf(76, 175, 80);
    p.setPen(Qt::NoPen);
    // two rounded halves make the fruit, with a shallow dip at the top
    p.setBrush(fruit);
    QPainterPath body;
    body.addEllipse(QRectF(3.5, 7.0, 10.0, 14.5));
    body.addEllipse(QRectF(10.5, 7.0, 10.0, 14.5));
    body.setFillRule(Qt::WindingFill);
    p.drawPath(body.simplified());
    // stem
    QPen stem(fruit, 1.4, Qt::SolidLine, Qt::RoundCap);
    p.setPen(stem);
    p.drawLine(QPointF(12.0, 8.0), QPointF(12.6, 4.2));
    // leaf
    p.setPen(Qt::NoPen);
    p.setBrush(leaf);
    QPainterPath l;
    l.moveTo(13.0, 5.0);
    l.cubicTo(14.5, 1.5, 18.5, 1.8, 19.0, 2.6);
    l.cubicTo(17.8, 5.6, 15.0, 6.0, 13.0, 5.0);
    p.drawPath(l);
    // a soft highlight
    p.setBrush(QColor(255, 255, 255, dark ? 60 : 45));
    p.drawEllipse(QRectF(6.0, 10.0, 3.0, 5.0));
}

void drawWindowFrame(QPainter& p, bool dark) {
    const QColor frame = dark ? QColor(90, 165, 255) : QColor(0, 110, 210);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(frame, 1.6));
    p.setBrush(Qt::NoBrush);
    const QRectF outer(2.8, 4.0, 18.4, 16.0);
    p.drawRoundedRect(outer, 2.2, 2.2);
    // title bar
    p.setPen(Qt::NoPen);
    p.setBrush(frame);
    QPainterPath bar;
    bar.addRoundedRect(QRectF(2.8, 4.0, 18.4, 4.4), 2.2, 2.2);
    bar.addRect(QRectF(2.8, 6.4, 18.4, 2.0));
    bar.setFillRule(Qt::WindingFill);
    p.drawPath(bar.simplified());
    // content split in panes
    p.setBrush(QColor(frame.red(), frame.green(), frame.blue(), 70));
    p.drawRect(QRectF(5.0, 10.4, 6.4, 3.8));
    p.drawRect(QRectF(12.6, 10.4, 6.4, 3.8));
    p.drawRect(QRectF(5.0, 15.2, 6.4, 3.0));
    p.drawRect(QRectF(12.6, 15.2, 6.4, 3.0));
}

void drawComputer(QPainter& p, bool dark) {
    const QColor c = dark ? QColor(180, 180, 186) : QColor(110, 110, 116);
    p.setPen(QPen(c, 1.6));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(QRectF(3.0, 4.0, 18.0, 12.5), 1.8, 1.8);
    p.setPen(QPen(c, 1.6, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(QPointF(12.0, 16.5), QPointF(12.0, 19.5));
    p.drawLine(QPointF(8.0, 20.2), QPointF(16.0, 20.2));
}

}  // namespace

QPixmap pixmap(const std::optional<QString>& name, int size, bool dark, qreal devicePixelRatio) {
    const qreal dpr = devicePixelRatio > 0 ? devicePixelRatio : 1.0;
    QPixmap pm(int(size * dpr), int(size * dpr));
    pm.setDevicePixelRatio(dpr);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(size / 24.0, size / 24.0);
    const QString n = name.value_or(QString());
    if (n == QLatin1String("os_linux"))
        drawPenguin(p, dark);
    else if (n == QLatin1String("os_apple"))
        drawAppleFruit(p, dark);
    else if (n == QLatin1String("os_windows"))
        drawWindowFrame(p, dark);
    else
        drawComputer(p, dark);
    return pm;
}

}  // namespace ostv::OsIcons
