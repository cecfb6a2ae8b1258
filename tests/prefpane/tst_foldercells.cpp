#include "common/VTUtil.h"
#include "prefpane/HistoryArrayModel.h"
#include "prefpane/QFellipsis.h"
#include "prefpane/QFTableCell.h"
#include "prefpane/VTFoldersCell.h"
#include "prefpane/VTPathCell.h"
#include "prefpane/VTSavingsCell.h"
#include "prefpane/VTSortDescriptor.h"
#include "prefpane/VTStatusCell.h"

#include <QApplication>
#include <QFontDatabase>
#include <QPainter>
#include <QTemporaryDir>
#include <QTest>

#include <clocale>

using namespace Qt::StringLiterals;

namespace {

const QColor kBlue(56, 117, 215);
const QColor kBackground(Qt::white);

// Solid squares, so an icon is known by its colour.
class PinnedIcons : public QAbstractFileIconProvider
{
public:
    QIcon icon(IconType) const override { return solid(Qt::green); }
    // Like the desktop's provider, nothing for a path that names nothing.
    QIcon icon(const QFileInfo &info) const override { return info.exists() ? solid(Qt::magenta) : QIcon(); }

private:
    static QIcon solid(const QColor &color)
    {
        QPixmap pixmap(24, 24);
        pixmap.fill(color);
        return QIcon(pixmap);
    }
};

bool near(QColor a, QColor b, int tolerance = 24)
{
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance
        && std::abs(a.blue() - b.blue()) <= tolerance;
}

// The box of pixels that differ from the background.
QRect inkBox(
    const QImage &image, const std::function<bool(QColor)> &ink = [](QColor c) { return !near(c, kBackground, 60); })
{
    QRect box;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (ink(image.pixelColor(x, y)))
                box |= QRect(x, y, 1, 1);
    return box;
}

// Ten points a character; line terminators take no room.
qreal tenPerCharacter(QStringView text)
{
    qreal w = 0;
    for (QChar c : text)
        w += (c == u'\n' || c == u'\r' || c == QChar(0x2028) || c == QChar(0x2029) || c == QChar(0x0085)) ? 0 : 10;
    return w;
}

} // namespace

// The folder table's cells drawn offscreen with pinned font, palette and icons; sizes, order, ellipsis.
class TestFolderCells : public QObject
{
    Q_OBJECT

private:
    HistoryArrayModel m_model;
    QPalette m_palette;

    enum Cell { Folder, Path, Status, Savings };

    QImage render(QFTableCell &cell, Cell column, const QVariant &value, QStyle::State state, QSize size = {200, 28})
    {
        m_model.setRows({{{u"sortID"_s, 0},
                          {u"folder"_s, value},
                          {u"path"_s, value},
                          {u"status"_s, value},
                          {u"savings"_s, value}}});
        QImage image(size, QImage::Format_ARGB32);
        image.fill(kBackground);
        QPainter painter(&image);
        QStyleOptionViewItem option;
        option.rect = QRect(QPoint(0, 0), size);
        option.state = state;
        option.palette = m_palette;
        option.checkState = Qt::Checked; // the helper is on
        cell.paint(&painter, option, m_model.index(0, column));
        return image;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QFontDatabase::addApplicationFont(u"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"_s) >= 0);
        QApplication::setFont(QFont(u"DejaVu Sans"_s));
        m_palette.setColor(QPalette::Highlight, kBlue);
        m_palette.setColor(QPalette::HighlightedText, Qt::white);
        m_palette.setColor(QPalette::Text, Qt::black);
        m_palette.setColor(QPalette::Base, Qt::white);
    }

    void disc_data()
    {
        QTest::addColumn<uint>("percent");
        QTest::addColumn<QList<QPoint>>("filled"); // offsets from the centre
        QTest::addColumn<QList<QPoint>>("empty");
        const QPoint top(0, -5), right(5, 0), bottom(0, 5), left(-5, 0);
        QTest::newRow("0: outline only") << 0u << QList<QPoint>{} << QList<QPoint>{top, right, bottom, left};
        QTest::newRow("25: first quarter")
            << 25u << QList<QPoint>{QPoint(3, -3)} << QList<QPoint>{QPoint(3, 3), QPoint(-3, 3), QPoint(-3, -3)};
        QTest::newRow("50: right half") << 50u << QList<QPoint>{top + QPoint(2, 0), right, QPoint(2, 5)}
                                        << QList<QPoint>{left, QPoint(-3, -3), QPoint(-3, 3)};
        QTest::newRow("100: whole") << 100u << QList<QPoint>{right, bottom, left, QPoint(-3, -4)} << QList<QPoint>{};
        QTest::newRow("150: drawn as 100")
            << 150u << QList<QPoint>{right, bottom, left, QPoint(-3, -4)} << QList<QPoint>{};
    }
    void disc()
    {
        QFETCH(uint, percent);
        QFETCH(QList<QPoint>, filled);
        QFETCH(QList<QPoint>, empty);
        VTStatusCell cell;
        const QImage image = render(cell, Status, percent, QStyle::State_Enabled, {56, 28});
        const QPoint centre(28, 14);
        // The outline is there whatever the progress: its top and bottom.
        QVERIFY(!near(image.pixelColor(centre + QPoint(0, -8)), kBackground, 10));
        QVERIFY(!near(image.pixelColor(centre + QPoint(0, 8)), kBackground, 10));
        QStyleOptionViewItem option;
        option.palette = m_palette;
        const QColor fill = percent >= 100 ? VTStatusCell::selectedControlColor(option) : kBlue;
        for (const QPoint &p : filled)
            QVERIFY2(near(image.pixelColor(centre + p), fill), qPrintable(u"filled at %1,%2"_s.arg(p.x()).arg(p.y())));
        for (const QPoint &p : empty)
            QVERIFY2(near(image.pixelColor(centre + p), kBackground),
                     qPrintable(u"empty at %1,%2"_s.arg(p.x()).arg(p.y())));
        if (percent >= 100) // the white check mark, on its middle stroke
            QVERIFY(near(image.pixelColor(centre + QPoint(-2, 1)), Qt::white, 60));
    }

    void text_data()
    {
        QTest::addColumn<int>("cellKind");
        QTest::addColumn<bool>("existing");
        QTest::addColumn<int>("state");
        QTest::addColumn<bool>("red");
        const int enabled = int(QStyle::State_Enabled);
        const int selected = int(QStyle::State_Enabled | QStyle::State_Selected);
        QTest::newRow("folder present") << int(Folder) << true << enabled << false;
        QTest::newRow("folder missing") << int(Folder) << false << enabled << true;
        QTest::newRow("path missing") << int(Path) << false << enabled << true;
        QTest::newRow("missing but selected") << int(Path) << false << selected << false;
        QTest::newRow("missing but disabled") << int(Path) << false << 0 << false;
        // The summary row is the one disabled row: generic icon, grey text, no status.
        QTest::newRow("summary folder") << int(Folder) << true << 0 << false;
        QTest::newRow("summary status") << int(Status) << true << 0 << false;
        QTest::newRow("summary savings") << int(Savings) << true << 0 << false;
    }
    void text()
    {
        QFETCH(int, cellKind);
        QFETCH(bool, existing);
        QFETCH(int, state);
        QFETCH(bool, red);
        QTemporaryDir dir;
        const QString path = existing ? dir.path() : dir.path() + u"/Gone Folder"_s;
        PinnedIcons icons;
        VTFoldersCell folders;
        folders.setIconProvider(&icons);
        VTPathCell paths;
        VTStatusCell status;
        VTSavingsCell savings;
        QFTableCell *cells[] = {&folders, &paths, &status, &savings};
        const QVariant value = cellKind == Status ? QVariant(100u) : cellKind == Savings ? QVariant(5000) : path;
        const QImage image = render(*cells[cellKind], Cell(cellKind), value, QStyle::State(state));
        QCOMPARE(inkBox(image, [](QColor c) { return c.red() > 180 && c.green() < 110 && c.blue() < 110; }).width() > 2,
                 red);
        // At x = 4: the folder's own icon; what names nothing, and the summary row, get the generic one.
        const QColor icon = existing && state ? Qt::magenta : Qt::green;
        if (cellKind == Folder)
            QCOMPARE(inkBox(image, [&](QColor c) { return near(c, icon); }).left(), 4);
        if (cellKind == Status)
            QVERIFY(inkBox(image).isEmpty());
        else if (state == 0)
            QVERIFY(inkBox(image, [](QColor c) { return near(c, QColor(128, 128, 128), 40); }).width() > 2);
    }

    void prettySize_data()
    {
        QTest::addColumn<quint64>("bytes");
        QTest::addColumn<QString>("shown");
        QTest::newRow("1023") << quint64(1023) << "1023 b";
        QTest::newRow("1024") << quint64(1024) << "1.02 KB";
        QTest::newRow("9999 rounds up, two decimals") << quint64(9999) << "10.00 KB";
        QTest::newRow("15000") << quint64(15000) << "15.0 KB";
        QTest::newRow("99999") << quint64(99999) << "100.0 KB";
        QTest::newRow("999999") << quint64(999999) << "1000 KB";
        QTest::newRow("1000000") << quint64(1000000) << "1.00 MB";
        QTest::newRow("no unit above GB") << quint64(5000000000000) << "5000 GB";
        QTest::newRow("above 2^63 is unsigned")
            << quint64(9300000000000000000ull) << "9300000768 GB"; // the float quotient, as C computes it
    }
    void prettySize()
    {
        QFETCH(quint64, bytes);
        QFETCH(QString, shown);
        // A comma locale must not change the decimal point.
        std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
        QCOMPARE(VTUtil::getPrettySize(bytes), shown);
        std::setlocale(LC_NUMERIC, "C");
    }

    void compare_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("comparison");
        QTest::addColumn<QVariant>("first");
        QTest::addColumn<QVariant>("second");
        QTest::addColumn<int>("ascending");
        using C = VTSortDescriptor::Comparison;
        QTest::newRow("last component ignores place and case")
            << "folder" << int(C::LastPathComponent) << QVariant(u"/Users/x/Documents"_s)
            << QVariant(u"/Volumes/Disk/documents"_s) << 0;
        QTest::newRow("last component orders by name")
            << "folder" << int(C::LastPathComponent) << QVariant(u"/z/apple"_s) << QVariant(u"/a/Banana"_s) << -1;
        QTest::newRow("trailing slash") << "folder" << int(C::LastPathComponent) << QVariant(u"/a/music/"_s)
                                        << QVariant(u"/b/Music"_s) << 0;
        QTest::newRow("path case-insensitive")
            << "path" << int(C::CaseInsensitive) << QVariant(u"/B"_s) << QVariant(u"/a"_s) << 1;
        QTest::newRow("savings unsigned")
            << "savings" << int(C::Default) << QVariant(quint64(1) << 63) << QVariant(quint64(5)) << 1;
        QTest::newRow("status") << "status" << int(C::Default) << QVariant(20u) << QVariant(100u) << -1;
    }
    void compare()
    {
        QFETCH(QString, key);
        QFETCH(int, comparison);
        QFETCH(QVariant, first);
        QFETCH(QVariant, second);
        QFETCH(int, ascending);
        const VTSortDescriptor descriptor(key, true, VTSortDescriptor::Comparison(comparison));
        const QVariantMap a{{u"sortID"_s, 0}, {key, first}};
        const QVariantMap b{{u"sortID"_s, 0}, {key, second}};
        QCOMPARE(descriptor.compareObject(a, b), ascending);
        QCOMPARE(descriptor.reversedSortDescriptor().compareObject(a, b), -ascending);

        // The summary row goes last whichever key and direction.
        const QVariantMap summary{{u"sortID"_s, 1}, {key, second}};
        for (const VTSortDescriptor &d : {descriptor, descriptor.reversedSortDescriptor()}) {
            QCOMPARE(d.compareObject(summary, a), 1);
            QCOMPARE(d.compareObject(a, summary), -1);
        }
    }

    void ellipsize_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<float>("width");
        QTest::addColumn<QString>("expected");

        QTest::newRow("fits with its terminators") << "abc\ndef\r" << 60.f << "abc\ndef\r";
        QTest::newRow("first replacement fits") << "abcdefgh" << 70.f << "abcd...";
        QTest::newRow("several steps") << "abcdefgh" << 50.f << "ab...";
        QTest::newRow("lone CR is re-inserted") << "abc\rdef" << 50.f << "abc\rdef";
        QTest::newRow("each terminator stays in its line") << u"abc\ndef\r\nghi\u2028jkl\u2029mno\u0085pqr"_s << 50.f
                                                           << u"abc\n\rdef\r\n\rghi\u2028\rjkl\u2029\rmno\u0085\rpqr"_s;
        QTest::newRow("exact line kept, neighbour cut") << "abcde\nabcdefgh" << 50.f << "abcde\n\rab...";
        QTest::newRow("cannot fit stops at ellipsis") << "abcdef" << 10.f << "...";
        QTest::newRow("trailing CR") << "abc\r" << 20.f << "...";
        QTest::newRow("empty, negative width") << "" << -5.f << "";
    }

    void ellipsize()
    {
        QFETCH(QString, text);
        QFETCH(float, width);
        QFETCH(QString, expected);
        QFellipsis::ellipsizeToFitWidth(text, width, tenPerCharacter);
        QCOMPARE(text, expected);
    }

    void realFontFits()
    {
        const QFont font = QApplication::font();
        const QString path = u"/home/someone/Documents/Projects/A rather long folder name"_s;
        const QString shortened = QFellipsis::mutableEllipsizedStringFrom(path, font, 120.f);
        QVERIFY(shortened.endsWith(u"..."_s));
        QVERIFY(path.startsWith(shortened.chopped(3)));
        QVERIFY(QFellipsis::width(shortened, font) <= 120.0);
        QCOMPARE(QFellipsis::mutableEllipsizedStringFrom(path, font, 10000.f), path);
    }
};

QTEST_MAIN(TestFolderCells)
#include "tst_foldercells.moc"
