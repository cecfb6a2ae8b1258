#include "prefpane/HistoryArrayModel.h"
#include "prefpane/QFTableCell.h"
#include "prefpane/VTFoldersCell.h"
#include "prefpane/VTPathCell.h"
#include "prefpane/VTSavingsCell.h"
#include "prefpane/VTStatusCell.h"

#include <QApplication>
#include <QFontDatabase>
#include <QPainter>
#include <QTemporaryDir>
#include <QTest>

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

bool isRed(QColor c)
{
    return c.red() > 180 && c.green() < 110 && c.blue() < 110;
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

} // namespace

// The folder table's cells drawn offscreen with a pinned font, palette and icons.
class TestFolderCells : public QObject
{
    Q_OBJECT

private:
    HistoryArrayModel m_model;
    QPalette m_palette;

    enum Cell { Folder, Path, Status, Savings };

    QImage render(QFTableCell &cell, Cell column, const QVariant &value, QStyle::State state, QSize size = {200, 28})
    {
        m_model.setRows({{{QStringLiteral("sortID"), 0},
                          {QStringLiteral("folder"), value},
                          {QStringLiteral("path"), value},
                          {QStringLiteral("status"), value},
                          {QStringLiteral("savings"), value}}});
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
        QVERIFY(QFontDatabase::addApplicationFont(QStringLiteral("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"))
                >= 0);
        QApplication::setFont(QFont(QStringLiteral("DejaVu Sans")));
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
            QVERIFY2(near(image.pixelColor(centre + p), fill),
                     qPrintable(QStringLiteral("filled at %1,%2").arg(p.x()).arg(p.y())));
        for (const QPoint &p : empty)
            QVERIFY2(near(image.pixelColor(centre + p), kBackground),
                     qPrintable(QStringLiteral("empty at %1,%2").arg(p.x()).arg(p.y())));
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
        const QString path = existing ? dir.path() : dir.path() + QStringLiteral("/Gone Folder");
        PinnedIcons icons;
        VTFoldersCell folders;
        folders.setIconProvider(&icons);
        VTPathCell paths;
        VTStatusCell status;
        VTSavingsCell savings;
        QFTableCell *cells[] = {&folders, &paths, &status, &savings};
        const QVariant value = cellKind == Status ? QVariant(100u) : cellKind == Savings ? QVariant(5000) : path;
        const QImage image = render(*cells[cellKind], Cell(cellKind), value, QStyle::State(state));
        QCOMPARE(inkBox(image, isRed).width() > 2, red);
        // At x = 4: the folder's own icon; what names nothing, and the summary row, get the generic one.
        const QColor icon = existing && state ? Qt::magenta : Qt::green;
        if (cellKind == Folder)
            QCOMPARE(inkBox(image, [&](QColor c) { return near(c, icon); }).left(), 4);
        if (cellKind == Status)
            QVERIFY(inkBox(image).isEmpty());
        else if (state == 0)
            QVERIFY(inkBox(image, [](QColor c) { return near(c, QColor(128, 128, 128), 40); }).width() > 2);
    }
};

QTEST_MAIN(TestFolderCells)
#include "tst_foldercells.moc"
