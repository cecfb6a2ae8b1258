#include "platform/PropertyList.h"
#include "TestEnvironment.h"

#include <QDateTime>
#include <QDir>
#include <QProcess>
#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>

class TestPropertyList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void roundTrip_data();
    void roundTrip();
    void notAPropertyList_data();
    void notAPropertyList();
    void readsBinary();
    void binaryNulIsRefused_data();
    void binaryNulIsRefused();
    void boolValue_data();
    void boolValue();
    void writeIsAtomicAndPrivate();
    void writeFailsCleanly();

private:
    TestEnvironment m_env;
};

void TestPropertyList::roundTrip_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("python");

    QTest::newRow("booleans") << QVariant(QVariantMap{{"a", true}, {"b", false}}) << "{'a': True, 'b': False}";
    QTest::newRow("integers") << QVariant(QVariantMap{{"n", qint64(-5)}, {"big", qint64(1) << 40}})
                              << "{'big': 1099511627776, 'n': -5}";
    QTest::newRow("unicode and markup") << QVariant(QVariantMap{{"s", QStringLiteral("Café <&> \"ü\"")}})
                                        << "{'s': 'Café <&> \"ü\"'}";
    QTest::newRow("nested") << QVariant(QVariantMap{{"list", QVariantList{QStringLiteral("x"), QVariantMap{{"k", 1.5}}}}})
                            << "{'list': ['x', {'k': 1.5}]}";
    QTest::newRow("data") << QVariant(QVariantMap{{"d", QByteArray("\x00\x01\xff", 3)}}) << "{'d': b'\\x00\\x01\\xff'}";
    QTest::newRow("empty array") << QVariant(QVariantMap{{"folderAliases", QVariantList()}}) << "{'folderAliases': []}";
    QTest::newRow("date") << QVariant(QVariantMap{{"t", QDateTime(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC)}})
                          << "{'t': datetime.datetime(2020, 1, 2, 3, 4, 5)}";
    // Legal in file names and binary lists, not in XML: such values are kept in binary form.
    QTest::newRow("control characters") << QVariant(QVariantMap{{"Path", QStringLiteral("/home/u/a\x01" "b\x1f")}})
                                        << "{'Path': '/home/u/a\\x01b\\x1f'}";
    QTest::newRow("control character in a key") << QVariant(QVariantMap{{"k\x08", QVariantList{true}}})
                                                 << "{'k\\x08': [True]}";
}

void TestPropertyList::roundTrip()
{
    QFETCH(QVariant, value);
    QFETCH(QString, python);
    const QString path = m_env.root() + QStringLiteral("/round.plist");
    QVERIFY(PropertyList::writeFile(path, value));
    const auto back = PropertyList::readFile(path);
    QVERIFY(back.has_value());
    QCOMPARE(PropertyList::toData(*back), PropertyList::toData(value));
    // A third-party reader sees the same values.
    QCOMPARE(TestEnvironment::pythonPlist(path), python);
}

void TestPropertyList::notAPropertyList_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray good = PropertyList::toXml(QVariantMap{{"active", false}});
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("text") << QByteArray("hello, world\n");
    QTest::newRow("truncated") << good.left(good.size() / 2);
    QTest::newRow("random bytes") << QByteArray::fromHex("8f1c00ffd2e73a9b4c5d6e7f0011223344");
    QTest::newRow("other xml") << QByteArray("<?xml version=\"1.0\"?><html><body/></html>");
    QTest::newRow("unclosed tags") << QByteArray("<plist><dict><key>a</key><true/></plist>");
    QTest::newRow("binary header only") << QByteArray("bplist00");
}

void TestPropertyList::notAPropertyList()
{
    QFETCH(QByteArray, bytes);
    QVERIFY(!PropertyList::fromData(bytes).has_value());
}

void TestPropertyList::readsBinary()
{
    const QString xml = m_env.root() + QStringLiteral("/b.xml");
    const QString bin = m_env.root() + QStringLiteral("/b.bin");
    QVERIFY(PropertyList::writeFile(xml, QVariantMap{{"visible", false}, {"n", 7}}));
    QProcess convert;
    convert.start(QStringLiteral("plistutil"), {QStringLiteral("-i"), xml, QStringLiteral("-o"), bin,
                                                QStringLiteral("-f"), QStringLiteral("bin")});
    QVERIFY(convert.waitForFinished(10000));
    const auto back = PropertyList::readFile(bin);
    QVERIFY(back.has_value());
    QCOMPARE(back->toMap().value("visible"), QVariant(false));
    QCOMPARE(back->toMap().value("n").toLongLong(), 7);

}

// Strings with a NUL inside, as another program may write them in binary form: libplist
// ends the process when such a string or key is read. They are no property list here.
void TestPropertyList::binaryNulIsRefused_data()
{
    QTest::addColumn<QByteArray>("bytes");
    // {"Path": "/a\0b"}, {"a\0b": 1} and ["x\0é"] (UTF-16), as Python's plistlib writes them.
    QTest::newRow("in a value") << QByteArray::fromHex("62706c6973743030d101025450617468542f610062080b100000000000000101"
                                                       "000000000000000300000000000000000000000000000015");
    QTest::newRow("in a key") << QByteArray::fromHex("62706c6973743030d10102536100621001080b0f000000000000010100000000"
                                                     "0000000300000000000000000000000000000011");
    QTest::newRow("in UTF-16") << QByteArray::fromHex("62706c6973743030a101630078000000e9080a00000000000001010000000000"
                                                      "00000200000000000000000000000000000011");
}

void TestPropertyList::binaryNulIsRefused()
{
    QFETCH(QByteArray, bytes);
    QVERIFY(!PropertyList::fromData(bytes).has_value());
}

void TestPropertyList::boolValue_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("expected");
    QTest::newRow("true") << QVariant(true) << true;
    QTest::newRow("zero") << QVariant(qint64(0)) << false;
    QTest::newRow("negative") << QVariant(qint64(-3)) << true;
    QTest::newRow("real") << QVariant(0.5) << true;
    QTest::newRow("YES") << QVariant(QStringLiteral("YES")) << true;
    QTest::newRow("true word") << QVariant(QStringLiteral("true")) << true;
    QTest::newRow("no") << QVariant(QStringLiteral("no")) << false;
    QTest::newRow("padded one") << QVariant(QStringLiteral("  +0001")) << true;
    QTest::newRow("zeros") << QVariant(QStringLiteral("000")) << false;
    QTest::newRow("empty string") << QVariant(QString()) << false;
    QTest::newRow("array") << QVariant(QVariantList{true}) << false;
}

void TestPropertyList::boolValue()
{
    QFETCH(QVariant, value);
    QFETCH(bool, expected);
    QCOMPARE(PropertyList::boolValue(value), expected);
}

void TestPropertyList::writeIsAtomicAndPrivate()
{
    const QString path = m_env.root() + QStringLiteral("/private.plist");
    QVERIFY(PropertyList::writeFile(path, QVariantMap{{"a", 1}}));
    QVERIFY(PropertyList::writeFile(path, QVariantMap{{"a", 2}}));
    struct stat st = {};
    QCOMPARE(::stat(QFile::encodeName(path).constData(), &st), 0);
    QCOMPARE(st.st_mode & 0777, 0600u);
    // No temporary files are left beside it.
    QCOMPARE(QDir(m_env.root()).entryList({QStringLiteral("private.plist*")}, QDir::Files).size(), 1);
}

void TestPropertyList::writeFailsCleanly()
{
    // A plain file where the folder should be.
    const QString blocker = m_env.root() + QStringLiteral("/blocker");
    TestEnvironment::writeFile(blocker, "x");
    QString error;
    QVERIFY(!PropertyList::writeFile(blocker + QStringLiteral("/x.plist"), QVariantMap{{"a", 1}}, &error));
    QVERIFY(!error.isEmpty());
    QCOMPARE(TestEnvironment::readFile(blocker), QByteArray("x"));
}

QTEST_GUILESS_MAIN(TestPropertyList)
#include "tst_propertylist.moc"
