#include "prefpane/VTFoldersCell.h"

#include "platform/FileManager.h"
#include "prefpane/QFellipsis.h"
#include "prefpane/VTSortDescriptor.h"

#include <QFileInfo>
#include <QPainter>

#include <cmath>

namespace {

// The text starts this far into the cell, after the icon.
constexpr qreal kTextInset = 34;
constexpr qreal kIconX = 4;
constexpr qreal kIconSize = 24;

} // namespace

QAbstractFileIconProvider *VTFoldersCell::iconProvider() const
{
    return m_iconProvider ? m_iconProvider : &m_desktopIcons;
}

void VTFoldersCell::drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                                          const QRectF &frame) const
{
    const QString path = value.toString();
    const bool enabled = isEnabled(cell);
    // Tested at every drawing: a folder that disappears turns red at the next redraw.
    const bool missing = enabled && !isHighlighted(cell) && !FileManager::fileExists(path);
    const QFont font = cellFont();
    const QString text =
        QFellipsis::mutableEllipsizedStringFrom(lastPathComponent(path), font, float(frame.width() - kTextInset));
    const qreal t = std::trunc(textSize(text, font).height());
    const qreal ty = frame.y() + std::floor((frame.height() - t) / 2);
    painter->setFont(font);
    painter->setPen(textColor(cell, missing));
    drawText(painter, text, QRectF(frame.x() + kTextInset, ty, frame.width(), frame.height()));

    QIcon icon = enabled ? iconProvider()->icon(QFileInfo(path)) : QIcon();
    // What names nothing gets the generic icon, as the summary row does.
    if (icon.isNull())
        icon = iconProvider()->icon(QAbstractFileIconProvider::File);
    const QRectF target(kIconX, ty - 6, kIconSize, kIconSize);
    const qreal ratio = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
    const QPixmap pixmap = icon.pixmap(QSize(int(kIconSize), int(kIconSize)), ratio);
    painter->setCompositionMode(QPainter::CompositionMode_SourceOver);
    painter->setOpacity(1.0);
    painter->drawPixmap(target, pixmap, QRectF(pixmap.rect()));
}
