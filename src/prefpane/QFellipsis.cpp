#include "prefpane/QFellipsis.h"

#include <QFontMetricsF>

#include <vector>

namespace {

const QString kEllipsis = QStringLiteral("...");

bool isLineTerminator(QChar c)
{
    return c == u'\n' || c == u'\r' || c == QChar(0x0085) || c == QChar(0x2028) || c == QChar(0x2029);
}

struct LineSpan {
    qsizetype start;
    qsizetype length;
};

// Line ranges include their terminator (CR LF counts as one); a trailing lone carriage
// return is left out of the recorded length, every other terminator stays in its line.
std::vector<LineSpan> lineSpans(const QString &text)
{
    std::vector<LineSpan> spans;
    qsizetype index = 0;
    const qsizetype n = text.size();
    while (index < n) {
        qsizetype end = index;
        while (end < n && !isLineTerminator(text.at(end)))
            ++end;
        if (end < n) {
            if (text.at(end) == u'\r' && end + 1 < n && text.at(end + 1) == u'\n')
                ++end;
            ++end;
        }
        qsizetype length = end - index;
        if (length > 0 && text.at(end - 1) == u'\r')
            --length;
        spans.push_back({index, length});
        index = end;
    }
    return spans;
}

} // namespace

QString QFellipsis::mutableEllipsizedStringFrom(const QString &string, const QFont &font, float width)
{
    QString text = string;
    ellipsizeToFitWidth(text, width, [&font](QStringView s) { return QFellipsis::width(s, font); });
    return text;
}

void QFellipsis::ellipsizeToFitWidth(QString &text, float width, const Measure &measure)
{
    if (width >= measure(text))
        return;

    const QString copy = text;
    text.clear();
    for (const LineSpan &span : lineSpans(copy)) {
        QString line = copy.mid(span.start, span.length);
        if (measure(line) > width) {
            do {
                if (line.size() <= kEllipsis.size()) {
                    line = kEllipsis; // nothing left to remove
                    break;
                }
                line.replace(line.size() - 4, 4, kEllipsis);
            } while (measure(line) > width);
        }
        text += line;
        text += u'\r';
    }
    if (text.endsWith(u'\r'))
        text.chop(1);
}

qreal QFellipsis::width(QStringView text, const QFont &font)
{
    QString visible;
    visible.reserve(text.size());
    for (QChar c : text) {
        if (!isLineTerminator(c))
            visible += c;
    }
    return QFontMetricsF(font).horizontalAdvance(visible);
}
