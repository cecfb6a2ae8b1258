#include "prefpane/VTPathCell.h"

#include "platform/FileManager.h"
#include "prefpane/QFellipsis.h"

#include <QPainter>

#include <cmath>

void VTPathCell::drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                                       const QRectF &frame) const
{
    const QString path = value.toString();
    const bool missing = isEnabled(cell) && !isHighlighted(cell) && !FileManager::fileExists(path);
    const QFont font = cellFont();
    const QString text = QFellipsis::mutableEllipsizedStringFrom(path, font, float(frame.width()));
    // Unlike the folder cell, the height is not cut to whole points first.
    const qreal ty = frame.y() + std::floor((frame.height() - textSize(text, font).height()) / 2);
    painter->setFont(font);
    painter->setPen(textColor(cell, missing));
    drawText(painter, text, QRectF(frame.x() + 1, ty, frame.width(), frame.height()));
}
