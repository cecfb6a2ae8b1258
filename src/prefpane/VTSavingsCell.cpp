#include "prefpane/VTSavingsCell.h"

#include "prefpane/QFellipsis.h"
#include "common/VTUtil.h"

#include <QPainter>

#include <cmath>

void VTSavingsCell::drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                                          const QRectF &frame) const
{
    const qint64 savings = value.toLongLong();
    const QFont font = cellFont();
    const QString text = QFellipsis::mutableEllipsizedStringFrom(
        savings != 0 ? VTUtil::getPrettySize(quint64(savings)) : QStringLiteral("-"), font, float(frame.width()));
    const QSizeF size = textSize(text, font);
    painter->setFont(font);
    painter->setPen(textColor(cell));
    drawText(painter, text,
             QRectF(frame.x() + std::floor((frame.width() - size.width()) / 2),
                    frame.y() + std::floor((frame.height() - size.height()) / 2), frame.width(), frame.height()));
}
