#pragma once

#include "prefpane/QFTableCell.h"

// The status column: a disc filling clockwise from twelve o'clock with the folder's
// progress, a check mark when done, or "OFF" while the helper is not active. Nothing on a
// disabled (summary) row.
class VTStatusCell : public QFTableCell
{
    Q_OBJECT
public:
    using QFTableCell::QFTableCell;

    static QColor alternateSelectedControlColor(const QStyleOptionViewItem &cell);
    static QColor selectedControlColor(const QStyleOptionViewItem &cell);

protected:
    void drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                               const QRectF &frame) const override;
};
