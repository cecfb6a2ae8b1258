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
        QTest::addColumn<QString>("userInfo"); // as gdbus writes it
        QTest::addColumn<QVariantMap>("expected");
        QTest::newRow("none") << "@a{sv} {}" << QVariantMap();
        QTest::newRow("nested")
            << "{'x': <{'n': <int64 3>, 'b': <true>, 'd': <@ay [1, 2]>}>}"
            << QVariantMap{
                   {u"x"_s, QVariantMap{{u"n"_s, qint64(3)}, {u"b"_s, true}, {u"d"_s, QByteArray("\x01\x02")}}}};
        QTest::newRow("strings") << "{'foldersToRemove': <['/x', '/y é']>}"
                                 << QVariantMap{{u"foldersToRemove"_s, QStringList{u"/x"_s, u"/y é"_s}}};
        QTest::newRow("byte") << "{'y': <byte 0x41>}" << QVariantMap{{u"y"_s, 65}};
        QTest::newRow("object path") << "{'p': <objectpath '/a/b'>}" << QVariantMap{{u"p"_s, u"/a/b"_s}};
        QTest::newRow("signature") << "{'g': <signature 'a{sv}'>}" << QVariantMap{{u"g"_s, u"a{sv}"_s}};
        QTest::newRow("structure dropped") << "{'s': <('x', 1)>, 'k': <true>}" << QVariantMap{{u"k"_s, true}};
        QTest::newRow("inside an array") << "{'a': <[<objectpath '/x'>, <('x', 1)>, <byte 2>]>}"
                                         << QVariantMap{{u"a"_s, QVariantList{u"/x"_s, 2}}};
        QTest::newRow("dictionary with integer keys")
            << "{'d': <{1: 'one'}>}" << QVariantMap{{u"d"_s, QVariantMap{{u"1"_s, u"one"_s}}}};
    }

    // Posted by us and by another program (gdbus, which may send any D-Bus type), the payload
    // reaches only its name's observers, and as property-list values.
    void payloadsArriveAsPropertyListValues()
    {
        QFETCH(QString, userInfo);
        QFETCH(QVariantMap, expected);
        auto *center = DistributedNotificationCenter::defaultCenter();
        QObject observer;
        QList<QVariantMap> heard;
        center->addObserver(&observer, u"test.payload"_s,
                            [&](const DistributedNotification &n) { heard << n.userInfo; });
        center->addObserver(&observer, u"test.other"_s,
                            [&](const DistributedNotification &) { heard << QVariantMap(); });
        center->postNotificationName(u"test.unheard"_s);
        center->postNotificationName(u"test.payload"_s, expected);
        QCOMPARE(TestEnvironment::postWithGdbus(u"test.payload"_s, userInfo), 0);
        QVERIFY(QTest::qWaitFor([&] { return heard.size() >= 2; }, 5000));
        QCOMPARE(heard, (QList<QVariantMap>{expected, expected}));
        QVERIFY(!PropertyList::toXml(heard.last()).isEmpty() && !PropertyList::toXml(heard.first()).isEmpty());
    }

private:
    TestEnvironment m_env;
};

QTEST_GUILESS_MAIN(TestDistributedNotificationCenter)
#include "tst_distributednotificationcenter.moc"
