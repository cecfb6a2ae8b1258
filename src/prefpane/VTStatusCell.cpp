#include "prefpane/VTStatusCell.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

namespace {

constexpr qreal kRadius = 8;

} // namespace

QColor VTStatusCell::alternateSelectedControlColor(const QStyleOptionViewItem &cell)
{
    return cell.palette.color(QPalette::Active, QPalette::Highlight);
}

QColor VTStatusCell::selectedControlColor(const QStyleOptionViewItem &cell)
{
    // The light form of the selection colour: the highlight most of the way to the base.
    const QColor highlight = alternateSelectedControlColor(cell);
    const QColor base = cell.palette.color(QPalette::Active, QPalette::Base);
    auto mix = [](int a, int b) { return int(std::lround(a + (b - a) * 0.6)); };
    return QColor(mix(highlight.red(), base.red()), mix(highlight.green(), base.green()),
                  mix(highlight.blue(), base.blue()));
}

void VTStatusCell::drawInteriorWithFrame(QPainter *painter, const QStyleOptionViewItem &cell, const QVariant &value,
                                         const QRectF &frame) const
{
    const uint p = std::min(value.toUInt(), 100u);
    QColor color;
    if (isHighlighted(cell))
        color = Qt::white;
    else if (!isEnabled(cell))
        return; // the summary row has no status
    else
        color = alternateSelectedControlColor(cell);

    const qreal x = frame.x(), y = frame.y(), w = frame.width(), h = frame.height();
    if (!isOn(cell)) {
        const QFont font = cellFont();
        const QFontMetricsF metrics(font);
        const QString off = QStringLiteral("OFF");
        const qreal tw = metrics.horizontalAdvance(off);
        // Deliberately centred by the text's width, not its height, then 4 down.
        const QPointF topLeft(x + std::floor((w - tw) / 2), y + std::floor((h - tw) / 2) + 4);
        painter->setFont(font);
        painter->setPen(isHighlighted(cell) ? Qt::white : Qt::black);
        painter->drawText(topLeft + QPointF(0, metrics.ascent()), off);
        return;
    }

    if (p == 100 && color == alternateSelectedControlColor(cell))
        color = selectedControlColor(cell);
    const QPointF c(x + std::floor(w / 2), y + std::floor(h / 2));
    const QRectF circle(c.x() - kRadius, c.y() - kRadius, 2 * kRadius, 2 * kRadius);

    QPainterPath outline;
    outline.moveTo(c.x(), c.y() - kRadius);
    outline.arcTo(circle, 90, -360);
    painter->setBrush(Qt::NoBrush);
    painter->setPen(QPen(color, 1));
    painter->drawPath(outline);

    if (p == 0)
        return;
    QPainterPath pie;
    pie.moveTo(c);
    pie.lineTo(c.x(), c.y() - kRadius);
    // From twelve o'clock, clockwise on screen.
    pie.arcTo(circle, 90, -3.6 * p);
    pie.closeSubpath();
    painter->fillPath(pie, color);

    if (p == 100) {
        QPainterPath check;
        check.moveTo(c.x() - 4, c.y() - 1);
        check.lineTo(c.x() - 1, c.y() + 3);
        check.lineTo(c.x() + 4, c.y() - 4);
        painter->setPen(QPen(color == selectedControlColor(cell) ? Qt::white : Qt::black, 2));
        painter->drawPath(check);
    }
}
