#include "TestEnvironment.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/PropertyList.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestDistributedNotificationCenter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void payloadsArriveAsPropertyListValues_data()
    {
        QTest::addColumn<QVariantMap>("userInfo");
        QTest::newRow("none") << QVariantMap();
        QTest::newRow("folders") << QVariantMap{{u"foldersToAdd"_s, QVariantList{u"/home/a"_s, u"/home/b é"_s}}};
        QTest::newRow("nested") << QVariantMap{
            {u"x"_s, QVariantMap{{u"n"_s, qint64(3)}, {u"b"_s, true}, {u"d"_s, QByteArray("\x01\x02")}}}};
    }

    void payloadsArriveAsPropertyListValues()
    {
        QFETCH(QVariantMap, userInfo);
        auto *center = DistributedNotificationCenter::defaultCenter();
        QObject observer;
        QList<DistributedNotification> got;
        QStringList heardByOther;
        center->addObserver(&observer, u"test.payload"_s, [&](const DistributedNotification &n) { got << n; });
        center->addObserver(&observer, u"test.other"_s,
                            [&](const DistributedNotification &n) { heardByOther << n.name; });
        center->postNotificationName(u"test.unheard"_s);
        center->postNotificationName(u"test.payload"_s, userInfo);
        QVERIFY(QTest::qWaitFor([&] { return !got.isEmpty(); }, 5000));
        QCOMPARE(got.size(), 1);
        QCOMPARE(got.first().name, u"test.payload"_s);
        QCOMPARE(got.first().userInfo, userInfo);
        QVERIFY(heardByOther.isEmpty());
    }

    void foreignTypesArriveAsPropertyListValues_data()
    {
        QTest::addColumn<QString>("userInfo");
        QTest::addColumn<QVariantMap>("expected");
        QTest::newRow("strings") << "{'foldersToRemove': <['/x', '/y']>}"
                                 << QVariantMap{{u"foldersToRemove"_s, QStringList{u"/x"_s, u"/y"_s}}};
        QTest::newRow("byte") << "{'y': <byte 0x41>}" << QVariantMap{{u"y"_s, 65}};
        QTest::newRow("object path") << "{'p': <objectpath '/a/b'>}" << QVariantMap{{u"p"_s, u"/a/b"_s}};
        QTest::newRow("signature") << "{'g': <signature 'a{sv}'>}" << QVariantMap{{u"g"_s, u"a{sv}"_s}};
        QTest::newRow("structure dropped") << "{'s': <('x', 1)>, 'k': <true>}" << QVariantMap{{u"k"_s, true}};
        QTest::newRow("inside an array") << "{'a': <[<objectpath '/x'>, <('x', 1)>, <byte 2>]>}"
                                         << QVariantMap{{u"a"_s, QVariantList{u"/x"_s, 2}}};
        QTest::newRow("dictionary with integer keys")
            << "{'d': <{1: 'one'}>}" << QVariantMap{{u"d"_s, QVariantMap{{u"1"_s, u"one"_s}}}};
    }

    // Another program (here gdbus) may send any D-Bus type; handlers only ever see property-list values.
    void foreignTypesArriveAsPropertyListValues()
    {
        QFETCH(QString, userInfo);
        QFETCH(QVariantMap, expected);
        QObject observer;
        std::optional<QVariantMap> heard;
        DistributedNotificationCenter::defaultCenter()->addObserver(
            &observer, u"test.foreign"_s, [&](const DistributedNotification &n) { heard = n.userInfo; });
        QCOMPARE(TestEnvironment::postWithGdbus(u"test.foreign"_s, userInfo), 0);
        QVERIFY(QTest::qWaitFor([&] { return heard.has_value(); }, 5000));
        QCOMPARE(*heard, expected);
        QVERIFY(!PropertyList::toXml(*heard).isEmpty());
    }

private:
    TestEnvironment m_env;
};

QTEST_GUILESS_MAIN(TestDistributedNotificationCenter)
#include "tst_distributednotificationcenter.moc"
