#include "platform/DistributedNotificationCenter.h"
#include "NotificationRecorder.h"
#include "platform/PropertyList.h"
#include "TestEnvironment.h"
#include "common/VTPreferenceCommunicator.h"

#include <QProcess>
#include <QTest>

class TestDistributedNotificationCenter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void payloadsArriveAsPropertyListValues_data();
    void payloadsArriveAsPropertyListValues();
    void observersHearOnlyTheirNames();
    void thirdPartySenderIsHeard();
    void foreignTypesArriveAsPropertyListValues_data();
    void foreignTypesArriveAsPropertyListValues();
    void communicatorSenders_data();
    void communicatorSenders();
    void communicatorIsCreatedOnce();
    void foldersRenamedHasNoEffect();

private:
    TestEnvironment m_env;
};

void TestDistributedNotificationCenter::payloadsArriveAsPropertyListValues_data()
{
    QTest::addColumn<QVariantMap>("userInfo");
    QTest::newRow("none") << QVariantMap();
    QTest::newRow("version") << QVariantMap{{"version", QStringLiteral("1.0.0")}};
    QTest::newRow("folders") << QVariantMap{{"foldersToAdd", QVariantList{QStringLiteral("/home/a"), QStringLiteral("/home/b é")}}};
    QTest::newRow("nested") << QVariantMap{{"x", QVariantMap{{"n", qint64(3)}, {"b", true}, {"d", QByteArray("\x01\x02")}}}};
}

void TestDistributedNotificationCenter::payloadsArriveAsPropertyListValues()
{
    QFETCH(QVariantMap, userInfo);
    auto *center = DistributedNotificationCenter::defaultCenter();
    QObject observer;
    QList<DistributedNotification> got;
    center->addObserver(&observer, QStringLiteral("test.payload"), [&](const DistributedNotification &n) { got << n; });
    center->postNotificationName(QStringLiteral("test.payload"), userInfo);
    QVERIFY(QTest::qWaitFor([&] { return !got.isEmpty(); }, 5000));
    QCOMPARE(got.size(), 1);
    QCOMPARE(got.first().name, QStringLiteral("test.payload"));
    QCOMPARE(got.first().userInfo, userInfo);
}

void TestDistributedNotificationCenter::observersHearOnlyTheirNames()
{
    auto *center = DistributedNotificationCenter::defaultCenter();
    QObject a, b;
    QStringList heardA, heardB;
    center->addObserver(&a, QStringLiteral("test.a"), [&](const DistributedNotification &n) { heardA << n.name; });
    center->addObserver(&b, QStringLiteral("test.b"), [&](const DistributedNotification &n) { heardB << n.name; });
    center->postNotificationName(QStringLiteral("test.b"));
    center->postNotificationName(QStringLiteral("test.c"));
    center->postNotificationName(QStringLiteral("test.a"));
    QVERIFY(QTest::qWaitFor([&] { return !heardA.isEmpty(); }, 5000));
    QCOMPARE(heardA, QStringList{"test.a"});
    QCOMPARE(heardB, QStringList{"test.b"});
}

void TestDistributedNotificationCenter::thirdPartySenderIsHeard()
{
    QObject observer;
    QVariantMap heard;
    DistributedNotificationCenter::defaultCenter()->addObserver(
        &observer, QStringLiteral("test.gdbus"), [&](const DistributedNotification &n) { heard = n.userInfo; });
    QCOMPARE(TestEnvironment::postWithGdbus(QStringLiteral("test.gdbus"),
                                            QStringLiteral("{'foldersToRemove': <['/x', '/y']>}")),
             0);
    QVERIFY(QTest::qWaitFor([&] { return !heard.isEmpty(); }, 5000));
    QCOMPARE(heard.value("foldersToRemove").toStringList(), QStringList({"/x", "/y"}));
}

void TestDistributedNotificationCenter::foreignTypesArriveAsPropertyListValues_data()
{
    QTest::addColumn<QString>("userInfo");
    QTest::addColumn<QVariantMap>("expected");
    QTest::newRow("byte") << "{'y': <byte 0x41>}" << QVariantMap{{"y", 65}};
    QTest::newRow("object path") << "{'p': <objectpath '/a/b'>}" << QVariantMap{{"p", QStringLiteral("/a/b")}};
    QTest::newRow("signature") << "{'g': <signature 'a{sv}'>}" << QVariantMap{{"g", QStringLiteral("a{sv}")}};
    QTest::newRow("structure dropped") << "{'s': <('x', 1)>, 'k': <true>}" << QVariantMap{{"k", true}};
    QTest::newRow("inside an array") << "{'a': <[<objectpath '/x'>, <('x', 1)>, <byte 2>]>}"
                                     << QVariantMap{{"a", QVariantList{QStringLiteral("/x"), 2}}};
    QTest::newRow("dictionary with integer keys") << "{'d': <{1: 'one'}>}"
                                                  << QVariantMap{{"d", QVariantMap{{"1", QStringLiteral("one")}}}};
}

// Another program may send any D-Bus type; handlers only ever see property-list values.
void TestDistributedNotificationCenter::foreignTypesArriveAsPropertyListValues()
{
    QFETCH(QString, userInfo);
    QFETCH(QVariantMap, expected);
    QObject observer;
    std::optional<QVariantMap> heard;
    DistributedNotificationCenter::defaultCenter()->addObserver(
        &observer, QStringLiteral("test.foreign"), [&](const DistributedNotification &n) { heard = n.userInfo; });
    QCOMPARE(TestEnvironment::postWithGdbus(QStringLiteral("test.foreign"), userInfo), 0);
    QVERIFY(QTest::qWaitFor([&] { return heard.has_value(); }, 5000));
    QCOMPARE(*heard, expected);
    QVERIFY(!PropertyList::toXml(*heard).isEmpty());
}

void TestDistributedNotificationCenter::communicatorSenders_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("name");
    QTest::newRow("folders changed") << "notifyFoldersChanged" << "vantorFoldersChanged";
    QTest::newRow("keep alive") << "notifyHelperShouldKeepAlive" << "vantorHelperShouldKeepAlive";
    QTest::newRow("quit") << "notifyHelperShouldQuit" << "vantorHelperShouldQuit";
    QTest::newRow("active") << "notifyHelperActiveStatusChanged" << "com.quillfen.vantor.active";
    QTest::newRow("check now") << "notifyHelperShouldCheckForUpdates" << "vantorHelperShouldCheckForUpdates";
    QTest::newRow("updates on") << "notifyAutomaticUpdatesEnabled" << "vantorHelperEnableUpdates";
    QTest::newRow("updates off") << "notifyAutomaticUpdatesDisabled" << "vantorHelperDisableUpdates";
}

void TestDistributedNotificationCenter::communicatorSenders()
{
    QFETCH(QString, method);
    QFETCH(QString, name);
    VTPreferenceCommunicator *communicator = VTPreferenceCommunicator::sharedCommunicatorController();
    using Sender = void (VTPreferenceCommunicator::*)();
    const QHash<QString, Sender> senders = {
        {"notifyFoldersChanged", &VTPreferenceCommunicator::notifyFoldersChanged},
        {"notifyHelperShouldKeepAlive", &VTPreferenceCommunicator::notifyHelperShouldKeepAlive},
        {"notifyHelperShouldQuit", &VTPreferenceCommunicator::notifyHelperShouldQuit},
        {"notifyHelperActiveStatusChanged", &VTPreferenceCommunicator::notifyHelperActiveStatusChanged},
        {"notifyHelperShouldCheckForUpdates", &VTPreferenceCommunicator::notifyHelperShouldCheckForUpdates},
        {"notifyAutomaticUpdatesEnabled", &VTPreferenceCommunicator::notifyAutomaticUpdatesEnabled},
        {"notifyAutomaticUpdatesDisabled", &VTPreferenceCommunicator::notifyAutomaticUpdatesDisabled},
    };
    NotificationRecorder recorder;
    (communicator->*senders.value(method))();
    recorder.settle();
    QCOMPARE(recorder.names(), QStringList{name});
    QCOMPARE(recorder.userInfos().first(), QVariantMap());
}

void TestDistributedNotificationCenter::communicatorIsCreatedOnce()
{
    VTPreferenceCommunicator *shared = VTPreferenceCommunicator::sharedCommunicatorController();
    QVERIFY(shared);
    QVERIFY(!VTPreferenceCommunicator::create());
    QCOMPARE(VTPreferenceCommunicator::sharedCommunicatorController(), shared);
}

void TestDistributedNotificationCenter::foldersRenamedHasNoEffect()
{
    VTPreferenceCommunicator::sharedCommunicatorController();
    NotificationRecorder recorder;
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("vantorFoldersRenamed"));
    recorder.settle();
    // Heard, and nothing sent in reply.
    QCOMPARE(recorder.names(), QStringList{"vantorFoldersRenamed"});
}

QTEST_GUILESS_MAIN(TestDistributedNotificationCenter)
#include "tst_distributednotificationcenter.moc"
