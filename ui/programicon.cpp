#include "ui/programicon.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace tarvoqc {

namespace {

QPixmap drawIcon(int size)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(size / 64.0, size / 64.0);
    // Screen: a dark frame with a blue picture, on a small stand.
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x26, 0x32, 0x38));
    p.drawRoundedRect(QRectF(4, 8, 56, 40), 5, 5);
    p.setBrush(QColor(0x1E, 0x88, 0xE5));
    p.drawRect(QRectF(9, 13, 46, 30));
    p.setBrush(QColor(0x26, 0x32, 0x38));
    p.drawRect(QRectF(28, 48, 8, 6));
    p.drawRoundedRect(QRectF(18, 54, 28, 5), 2, 2);
    // The verdict: a green check mark over the picture.
    QPainterPath check;
    check.moveTo(19, 29);
    check.lineTo(28, 37);
    check.lineTo(46, 18);
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(QColor(0x43, 0xA0, 0x47), 7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPath(check);
    p.setPen(QPen(Qt::white, 3, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPath(check);
    return pixmap;
}

} // namespace

QIcon programIcon()
{
    static const QIcon icon = [] {
        QIcon made;
        for (int size : {16, 32, 48, 64, 256}) {
            made.addPixmap(drawIcon(size));
        }
        return made;
    }();
    return icon;
}

} // namespace tarvoqc
