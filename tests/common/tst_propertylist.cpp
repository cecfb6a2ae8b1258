#include "TestEnvironment.h"
#include "platform/PropertyList.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

class TestPropertyList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void roundTrip_data()
    {
        QTest::addColumn<QVariantMap>("value");
        QTest::addColumn<QString>("python");
        const QDateTime date(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC);
        QTest::newRow("booleans and integers")
            << QVariantMap{{u"a"_s, true}, {u"n"_s, qint64(1) << 40}} << "{'a': True, 'n': 1099511627776}";
        QTest::newRow("unicode and markup") << QVariantMap{{u"s"_s, u"Café <&> \"ü\""_s}} << "{'s': 'Café <&> \"ü\"'}";
        QTest::newRow("nested") << QVariantMap{{u"list"_s, QVariantList{u"x"_s, QVariantMap{{u"k"_s, 1.5}}}}}
                                << "{'list': ['x', {'k': 1.5}]}";
        QTest::newRow("data") << QVariantMap{{u"d"_s, QByteArray("\x00\x01\xff", 3)}} << "{'d': b'\\x00\\x01\\xff'}";
        QTest::newRow("empty array") << QVariantMap{{u"folderAliases"_s, QVariantList()}} << "{'folderAliases': []}";
        QTest::newRow("date") << QVariantMap{{u"t"_s, date}} << "{'t': datetime.datetime(2020, 1, 2, 3, 4, 5)}";
        // Legal in file names and binary lists, not in XML: such values are kept in binary form.
        QTest::newRow("control characters")
            << QVariantMap{{u"Path"_s, u"/home/u/a\001b\037"_s}} << "{'Path': '/home/u/a\\x01b\\x1f'}";
        QTest::newRow("control character in a key")
            << QVariantMap{{u"k\010"_s, QVariantList{true}}} << "{'k\\x08': [True]}";
    }

    void roundTrip()
    {
        QFETCH(QVariantMap, value);
        QFETCH(QString, python);
        const QString path = m_env.root() + u"/round.plist"_s;
        QVERIFY(PropertyList::writeFile(path, value));
        QCOMPARE(PropertyList::toData(PropertyList::readFile(path).value_or(QVariant())), PropertyList::toData(value));
        // A third-party reader sees the same values, and we read its binary form of them.
        QCOMPARE(TestEnvironment::pythonPlist(path), python);
        const QString binary = m_env.root() + u"/round.bin"_s;
        QCOMPARE(QProcess::execute(u"plistutil"_s, {u"-i"_s, path, u"-o"_s, binary, u"-f"_s, u"bin"_s}), 0);
        QCOMPARE(PropertyList::toData(PropertyList::readFile(binary).value_or(QVariant())),
                 PropertyList::toData(value));
    }

    void notAPropertyList_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray good = PropertyList::toXml(QVariantMap{{u"active"_s, false}});
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("text") << QByteArray("hello, world\n");
        QTest::newRow("truncated") << good.left(good.size() / 2);
        QTest::newRow("other xml") << QByteArray("<?xml version=\"1.0\"?><html><body/></html>");
        QTest::newRow("unclosed tags") << QByteArray("<plist><dict><key>a</key><true/></plist>");
        QTest::newRow("binary header only") << QByteArray("bplist00");
        // Strings with a NUL inside, as another program may write them in binary form: libplist
        // ends the process when such a string or key is read. {"Path": "/a\0b"}, {"a\0b": 1} and
        // ["x\0é"] (UTF-16), as Python's plistlib writes them.
        QTest::newRow("NUL in a value") << QByteArray::fromHex(
            "62706c6973743030d101025450617468542f610062080b100000000000000101"
            "000000000000000300000000000000000000000000000015");
        QTest::newRow("NUL in a key") << QByteArray::fromHex(
            "62706c6973743030d10102536100621001080b0f000000000000010100000000"
            "0000000300000000000000000000000000000011");
        QTest::newRow("NUL in UTF-16") << QByteArray::fromHex(
            "62706c6973743030a101630078000000e9080a00000000000001010000000000"
            "00000200000000000000000000000000000011");
    }

    void notAPropertyList()
    {
        QFETCH(QByteArray, bytes);
        QVERIFY(!PropertyList::fromData(bytes).has_value());
    }

    void boolValue_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<bool>("expected");
        QTest::newRow("zero") << QVariant(qint64(0)) << false;
        QTest::newRow("negative") << QVariant(qint64(-3)) << true;
        QTest::newRow("real") << QVariant(0.5) << true;
        QTest::newRow("YES") << QVariant(u"YES"_s) << true;
        QTest::newRow("true word") << QVariant(u"true"_s) << true;
        QTest::newRow("no") << QVariant(u"no"_s) << false;
        QTest::newRow("padded one") << QVariant(u"  +0001"_s) << true;
        QTest::newRow("zeros") << QVariant(u"000"_s) << false;
        QTest::newRow("empty string") << QVariant(QString()) << false;
        QTest::newRow("array") << QVariant(QVariantList{true}) << false;
    }

    void boolValue()
    {
        QFETCH(QVariant, value);
        QFETCH(bool, expected);
        QCOMPARE(PropertyList::boolValue(value), expected);
    }

    void writeIsAtomicAndPrivate()
    {
        const QString path = m_env.root() + u"/private.plist"_s;
        QVERIFY(PropertyList::writeFile(path, QVariantMap{{u"a"_s, 1}}));
        QVERIFY(PropertyList::writeFile(path, QVariantMap{{u"a"_s, 2}}));
        QCOMPARE(QFileInfo(path).permissions() & 0x0077, QFileDevice::Permissions());
        // No temporary files are left beside it.
        QCOMPARE(QDir(m_env.root()).entryList({u"private.plist*"_s}, QDir::Files).size(), 1);
    }

private:
    TestEnvironment m_env;
};

QTEST_GUILESS_MAIN(TestPropertyList)
#include "tst_propertylist.moc"
