#pragma once

#include "prefpane/QFTableCell.h"

#include <QFileIconProvider>

// The folder column: the folder's icon and its name, shortened to fit.
class VTFoldersCell : public QFTableCell
{
    Q_OBJECT
public:
    using QFTableCell::QFTableCell;

    // Where icons come from; not owned. Null restores the desktop's icons.
    void setIconProvider(QAbstractFileIconProvider *provider) { m_iconProvider = provider; }

protected:
    void drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                               const QRectF &frame) const override;

private:
    QAbstractFileIconProvider *iconProvider() const;

    QAbstractFileIconProvider *m_iconProvider = nullptr;
    mutable QFileIconProvider m_desktopIcons;
};
