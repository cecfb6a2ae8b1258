#pragma once

#include "prefpane/QFTableCell.h"

// The savings column: bytes saved in their pretty form, centred; "-" for none.
class VTSavingsCell : public QFTableCell
{
    Q_OBJECT
public:
    using QFTableCell::QFTableCell;

protected:
    void drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                               const QRectF &frame) const override;
};
