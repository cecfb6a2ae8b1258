#pragma once

#include "prefpane/QFTableCell.h"

// The path column: the folder's whole path (the label text on the summary row).
class VTPathCell : public QFTableCell
{
    Q_OBJECT
public:
    using QFTableCell::QFTableCell;

protected:
    void drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                               const QRectF &frame) const override;
};
