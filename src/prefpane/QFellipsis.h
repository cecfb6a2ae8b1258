#pragma once

#include <QFont>
#include <QString>
#include <QStringView>

#include <functional>

// Shortens text to a width by cutting characters off the end of each line and putting
// "..." in their place, one character per measurement. Lines come back separated by "\r".
class QFellipsis
{
public:
    // The drawn width of a text on one line.
    using Measure = std::function<qreal(QStringView)>;

    // The string drawn in font, shortened to width.
    static QString mutableEllipsizedStringFrom(const QString &string, const QFont &font, float width);

    // Shortens text in place. A line that is still too wide once only "..." is left of it
    // stays "...".
    static void ellipsizeToFitWidth(QString &text, float width, const Measure &measure);

    // The width of text in font; line terminators take no room.
    static qreal width(QStringView text, const QFont &font);
};
