// What the folder table shows as text: sizes, their order, and names shortened to fit.

#include "common/VTUtil.h"
#include "prefpane/QFellipsis.h"
#include "prefpane/VTSortDescriptor.h"

#include <QApplication>
#include <QTest>

#include <clocale>

namespace {

// Ten points a character; line terminators take no room.
qreal tenPerCharacter(QStringView text)
{
    qreal w = 0;
    for (QChar c : text)
        w += (c == u'\n' || c == u'\r' || c == QChar(0x2028) || c == QChar(0x2029) || c == QChar(0x0085)) ? 0 : 10;
    return w;
}

} // namespace

class TestTableText : public QObject
{
    Q_OBJECT
private Q_SLOTS:
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
            << "folder" << int(C::LastPathComponent) << QVariant(QStringLiteral("/Users/x/Documents"))
            << QVariant(QStringLiteral("/Volumes/Disk/documents")) << 0;
        QTest::newRow("last component orders by name")
            << "folder" << int(C::LastPathComponent) << QVariant(QStringLiteral("/z/apple"))
            << QVariant(QStringLiteral("/a/Banana")) << -1;
        QTest::newRow("trailing slash") << "folder" << int(C::LastPathComponent)
                                        << QVariant(QStringLiteral("/a/music/")) << QVariant(QStringLiteral("/b/Music"))
                                        << 0;
        QTest::newRow("path case-insensitive") << "path" << int(C::CaseInsensitive) << QVariant(QStringLiteral("/B"))
                                               << QVariant(QStringLiteral("/a")) << 1;
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
        const QVariantMap a{{QStringLiteral("sortID"), 0}, {key, first}};
        const QVariantMap b{{QStringLiteral("sortID"), 0}, {key, second}};
        QCOMPARE(descriptor.compareObject(a, b), ascending);
        QCOMPARE(descriptor.reversedSortDescriptor().compareObject(a, b), -ascending);

        // The summary row goes last whichever key and direction.
        const QVariantMap summary{{QStringLiteral("sortID"), 1},
                                  {QStringLiteral("folder"), QStringLiteral("Other")},
                                  {QStringLiteral("path"), QStringLiteral("Previous savings")},
                                  {QStringLiteral("status"), 100},
                                  {QStringLiteral("savings"), quint64(0)}};
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

        QTest::newRow("fits") << "abc" << 30.f << "abc";
        QTest::newRow("fits with its terminators") << "abc\ndef\r" << 60.f << "abc\ndef\r";
        QTest::newRow("first replacement fits") << "abcdefgh" << 70.f << "abcd...";
        QTest::newRow("several steps") << "abcdefgh" << 50.f << "ab...";
        QTest::newRow("lone CR is re-inserted") << "abc\rdef" << 50.f << "abc\rdef";
        QTest::newRow("each terminator stays in its line")
            << QStringLiteral("abc\ndef\r\nghi\u2028jkl\u2029mno\u0085pqr") << 50.f
            << QStringLiteral("abc\n\rdef\r\n\rghi\u2028\rjkl\u2029\rmno\u0085\rpqr");
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
        QFont font;
        font.setPixelSize(11);
        const QString path = QStringLiteral("/home/someone/Documents/Projects/A rather long folder name");
        const QString shortened = QFellipsis::mutableEllipsizedStringFrom(path, font, 120.f);
        QVERIFY(shortened.endsWith(QStringLiteral("...")));
        QVERIFY(path.startsWith(shortened.chopped(3)));
        QVERIFY(QFellipsis::width(shortened, font) <= 120.0);
        QCOMPARE(QFellipsis::mutableEllipsizedStringFrom(path, font, 10000.f), path);
    }
};

QTEST_MAIN(TestTableText)
#include "tst_tabletext.moc"
