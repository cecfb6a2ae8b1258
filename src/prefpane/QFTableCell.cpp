#include "prefpane/QFTableCell.h"

#include "prefpane/HistoryArrayModel.h"
#include "prefpane/QFTableView.h"

#include <QApplication>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QPainter>

namespace {

QString forDrawing(QString text)
{
    text.replace(u'\r', u'\n');
    return text;
}

} // namespace

void QFTableCell::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem cell = option;
    initStyleOption(&cell, index);
    cell.text.clear();
    cell.icon = QIcon();
    cell.features &= ~(QStyleOptionViewItem::HasDisplay | QStyleOptionViewItem::HasDecoration);
    if (auto *table = qobject_cast<QFTableView *>(const_cast<QWidget *>(cell.widget))) {
        if (QFTableViewDelegate *delegate = table->delegate())
            delegate->tableViewWillDisplayCell(table, cell, index.column(), index.row());
    }

    const QWidget *widget = cell.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &cell, painter, widget);

    painter->save();
    painter->setClipRect(option.rect);
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setRenderHint(QPainter::TextAntialiasing);
    drawInteriorWithFrame(painter, cell, index.data(HistoryArrayModel::ValueRole), QRectF(option.rect));
    painter->restore();
}

QFont QFTableCell::cellFont()
{
    static const QString lucida = QStringLiteral("Lucida Grande");
    QFont font = QFontDatabase::hasFamily(lucida) ? QFont(lucida) : QGuiApplication::font();
    // A Cocoa point is a pixel at 1x.
    font.setPixelSize(11);
    return font;
}

bool QFTableCell::isHighlighted(const QStyleOptionViewItem &cell)
{
    return cell.state.testFlag(QStyle::State_Selected);
}

bool QFTableCell::isEnabled(const QStyleOptionViewItem &cell)
{
    return cell.state.testFlag(QStyle::State_Enabled);
}

bool QFTableCell::isOn(const QStyleOptionViewItem &cell)
{
    return cell.checkState == Qt::Checked;
}

QColor QFTableCell::textColor(const QStyleOptionViewItem &cell, bool missing)
{
    if (isHighlighted(cell))
        return cell.palette.color(QPalette::Active, QPalette::HighlightedText);
    if (!isEnabled(cell))
        return grayColor();
    return missing ? redColor() : cell.palette.color(QPalette::Active, QPalette::Text);
}

QSizeF QFTableCell::textSize(const QString &text, const QFont &font)
{
    return QFontMetricsF(font).size(0, forDrawing(text));
}

void QFTableCell::drawText(QPainter *painter, const QString &text, const QRectF &rect)
{
    painter->drawText(rect, Qt::AlignLeft | Qt::AlignTop, forDrawing(text));
}
