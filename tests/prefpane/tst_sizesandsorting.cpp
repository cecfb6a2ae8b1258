#include "prefpane/VTSizeToPrettySizeTransformer.h"
#include "prefpane/VTSortDescriptor.h"
#include "common/VTUtil.h"

#include <QTest>

#include <clocale>

class TestSizesAndSorting : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void prettySize_data()
    {
        QTest::addColumn<quint64>("bytes");
        QTest::addColumn<QString>("shown");
        QTest::newRow("zero") << quint64(0) << "0 b";
        QTest::newRow("1000 stays in bytes") << quint64(1000) << "1000 b";
        QTest::newRow("1023") << quint64(1023) << "1023 b";
        QTest::newRow("1024") << quint64(1024) << "1.02 KB";
        QTest::newRow("9999 rounds up, two decimals") << quint64(9999) << "10.00 KB";
        QTest::newRow("15000") << quint64(15000) << "15.0 KB";
        QTest::newRow("99999") << quint64(99999) << "100.0 KB";
        QTest::newRow("999999") << quint64(999999) << "1000 KB";
        QTest::newRow("1000000") << quint64(1000000) << "1.00 MB";
        QTest::newRow("250000000") << quint64(250000000) << "250 MB";
        QTest::newRow("1000000000") << quint64(1000000000) << "1.00 GB";
        QTest::newRow("no unit above GB") << quint64(5000000000000) << "5000 GB";
        QTest::newRow("above 2^63 is unsigned") << quint64(9300000000000000000ull) << "9300000768 GB"; // the float quotient, as C computes it
        QTest::newRow("max") << std::numeric_limits<quint64>::max() << "18446743552 GB";
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

    void transformer()
    {
        VTSizeToPrettySizeTransformer transformer;
        QCOMPARE(transformer.transformedValue(QVariant()).toString(), QStringLiteral("-"));
        QCOMPARE(transformer.transformedValue(quint64(0)).toString(), QStringLiteral("-"));
        QCOMPARE(transformer.transformedValue(quint64(1024)).toString(), QStringLiteral("1.02 KB"));
        QVERIFY(!transformer.reverseTransformedValue(QStringLiteral("1 KB")).isValid());
        QVERIFY(!VTSizeToPrettySizeTransformer::allowsReverseTransformation());
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
            << "folder" << int(C::LastPathComponent) << QVariant("/Users/x/Documents")
            << QVariant("/Volumes/Disk/documents") << 0;
        QTest::newRow("last component orders by name")
            << "folder" << int(C::LastPathComponent) << QVariant("/z/apple") << QVariant("/a/Banana") << -1;
        QTest::newRow("trailing slash") << "folder" << int(C::LastPathComponent) << QVariant("/a/music/")
                                        << QVariant("/b/Music") << 0;
        QTest::newRow("path case-insensitive") << "path" << int(C::CaseInsensitive) << QVariant("/B")
                                               << QVariant("/a") << 1;
        QTest::newRow("savings unsigned") << "savings" << int(C::Default) << QVariant(quint64(1) << 63)
                                          << QVariant(quint64(5)) << 1;
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
        const QVariantMap a{{"sortID", 0}, {key, first}};
        const QVariantMap b{{"sortID", 0}, {key, second}};
        QCOMPARE(descriptor.compareObject(a, b), ascending);
        QCOMPARE(descriptor.reversedSortDescriptor().compareObject(a, b), -ascending);

        // The summary row goes last whichever key and direction.
        const QVariantMap summary{{"sortID", 1}, {"folder", "Other"}, {"path", "Previous savings"},
                                  {"status", 100}, {"savings", quint64(0)}};
        for (const VTSortDescriptor &d : {descriptor, descriptor.reversedSortDescriptor()}) {
            QCOMPARE(d.compareObject(summary, a), 1);
            QCOMPARE(d.compareObject(a, summary), -1);
        }
    }
};

QTEST_GUILESS_MAIN(TestSizesAndSorting)
#include "tst_sizesandsorting.moc"
