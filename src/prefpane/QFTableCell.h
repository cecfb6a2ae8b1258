#pragma once

#include <QColor>
#include <QFont>
#include <QStyledItemDelegate>

// A folder-table cell that draws its value itself in a fixed style. Before drawing, the
// table's delegate sets the cell up (enabled, on/off state); then the style draws the row's
// background and the cell its interior.
class QFTableCell : public QStyledItemDelegate
{
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    // "Lucida Grande" where installed, else the desktop's sans, at 11 pixels.
    static QFont cellFont();

    static bool isHighlighted(const QStyleOptionViewItem &cell);
    static bool isEnabled(const QStyleOptionViewItem &cell);
    // The on/off state: whether the helper is active.
    static bool isOn(const QStyleOptionViewItem &cell);

    // The text cells' colour: selected text, else grey when disabled, else the control text
    // colour or red for a path that names nothing.
    static QColor textColor(const QStyleOptionViewItem &cell, bool missing = false);
    static QColor redColor() { return QColor(255, 0, 0); }
    static QColor grayColor() { return QColor(128, 128, 128); }

protected:
    // frame is the cell's rectangle; value the row's value for the column.
    virtual void drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                                       const QRectF &frame) const = 0;

    // The size of text drawn in font; lines are separated by "\r".
    static QSizeF textSize(const QString &text, const QFont &font);
    // Draws text with its top-left corner at rect's.
    static void drawText(QPainter *painter, const QString &text, const QRectF &rect);
};
