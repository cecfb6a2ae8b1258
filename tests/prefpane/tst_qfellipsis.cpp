#include "prefpane/QFellipsis.h"

#include <QApplication>
#include <QTest>

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

class TestQFellipsis : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ellipsize_data();
    void ellipsize();
    void measuresOneCharacterAtATime();
    void realFontFits();
};

void TestQFellipsis::ellipsize_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<float>("width");
    QTest::addColumn<QString>("expected");

    QTest::newRow("fits") << "abc" << 30.f << "abc";
    QTest::newRow("fits with its terminators") << "abc\ndef\r" << 60.f << "abc\ndef\r";
    QTest::newRow("first replacement fits") << "abcdefgh" << 70.f << "abcd...";
    QTest::newRow("several steps") << "abcdefgh" << 50.f << "ab...";
    QTest::newRow("lone CR is re-inserted") << "abc\rdef" << 50.f << "abc\rdef";
    QTest::newRow("LF stays in its line") << "abc\ndef" << 50.f << "abc\n\rdef";
    QTest::newRow("CR LF stays in its line") << "abc\r\ndef" << 50.f << "abc\r\n\rdef";
    QTest::newRow("line separator") << QStringLiteral("abc\u2028def") << 50.f << QStringLiteral("abc\u2028\rdef");
    QTest::newRow("paragraph separator") << QStringLiteral("abc\u2029def") << 50.f << QStringLiteral("abc\u2029\rdef");
    QTest::newRow("next line") << QStringLiteral("abc\u0085def") << 50.f << QStringLiteral("abc\u0085\rdef");
    QTest::newRow("exact line kept, neighbour cut") << "abcde\nabcdefgh" << 50.f << "abcde\n\rab...";
    QTest::newRow("cannot fit stops at ellipsis") << "abcdef" << 10.f << "...";
    QTest::newRow("short line too wide") << "ab" << 10.f << "...";
    QTest::newRow("trailing CR") << "abc\r" << 20.f << "...";
    QTest::newRow("empty, negative width") << "" << -5.f << "";
}

void TestQFellipsis::ellipsize()
{
    QFETCH(QString, text);
    QFETCH(float, width);
    QFETCH(QString, expected);
    QFellipsis::ellipsizeToFitWidth(text, width, tenPerCharacter);
    QCOMPARE(text, expected);
}

void TestQFellipsis::measuresOneCharacterAtATime()
{
    int measurements = 0;
    QString text = QStringLiteral("abcdefghij");
    QFellipsis::ellipsizeToFitWidth(text, 50.f, [&](QStringView s) { ++measurements; return tenPerCharacter(s); });
    QCOMPARE(text, QStringLiteral("ab..."));
    // Whole text, the line, then one per removed character (10 -> 9 -> ... -> 5).
    QCOMPARE(measurements, 2 + 5);
}

void TestQFellipsis::realFontFits()
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

QTEST_MAIN(TestQFellipsis)
#include "tst_qfellipsis.moc"
