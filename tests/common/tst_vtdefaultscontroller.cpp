#include "NotificationRecorder.h"
#include "platform/PropertyList.h"
#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "common/VTUtil.h"

#include <QMetaProperty>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

namespace {

const QString kAllDefaults = QStringLiteral(
    "{'active': True, 'checkUpdates': True, 'firstRun': True, 'folderAliases': [], 'runAtLogin': True, 'visible': True}");

} // namespace

class TestVTDefaultsController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void creationWritesDefaults();
    void secondCreationYieldsNothing();
    void readingRules_data();
    void readingRules();
    void settersWriteBeforeSignalling_data();
    void settersWriteBeforeSignalling();
    void checkForUpdatesAlwaysNotifiesHelper();
    void changingDictionaryNotifiesNoOne();
    void writeFailureIsLoggedAndKeptInMemory();

private:
    QString file() const { return m_env.productFolder() + QStringLiteral("/defaults.plist"); }
    VTDefaultsController *store() const { return VTDefaultsController::sharedDefaultsController(); }

    TestEnvironment m_env;
};

void TestVTDefaultsController::creationWritesDefaults()
{
    VTDefaultsController *made = VTDefaultsController::create();
    QVERIFY(made);
    QCOMPARE(made, store());
    QCOMPARE(TestEnvironment::pythonPlist(file()), kAllDefaults);
    QVERIFY(store()->firstRun());
}

void TestVTDefaultsController::secondCreationYieldsNothing()
{
    TestEnvironment::writeFile(file(), PropertyList::toXml(QVariantMap{{"visible", false}}));
    QVERIFY(!VTDefaultsController::create());
    // Neither re-read nor re-written.
    QVERIFY(store()->visible());
    QCOMPARE(TestEnvironment::pythonPlist(file()), QStringLiteral("{'visible': False}"));
}

void TestVTDefaultsController::readingRules_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QString>("fileAfterCreation");
    QTest::addColumn<bool>("helperActive");
    QTest::addColumn<bool>("checkForUpdates");

    const QByteArray onlyInactive = PropertyList::toXml(QVariantMap{{"active", false}});
    QTest::newRow("missing file") << QByteArray() << kAllDefaults << true << true;
    QTest::newRow("empty dictionary") << PropertyList::toXml(QVariantMap()) << kAllDefaults << true << true;
    QTest::newRow("truncated") << onlyInactive.left(onlyInactive.size() - 20) << kAllDefaults << true << true;
    QTest::newRow("random bytes") << QByteArray::fromHex("00ff13a7c4e9b2") << kAllDefaults << true << true;
    QTest::newRow("array at the root") << PropertyList::toXml(QVariantList{false}) << kAllDefaults << true << true;
    // No merging: the other keys stay absent and read as their defaults.
    QTest::newRow("only active") << onlyInactive << QStringLiteral("{'active': False}") << false << true;
    QTest::newRow("strings and numbers")
        << PropertyList::toXml(QVariantMap{{"active", QStringLiteral("NO")}, {"checkUpdates", 0}})
        << QStringLiteral("{'active': 'NO', 'checkUpdates': 0}") << false << false;
}

void TestVTDefaultsController::readingRules()
{
    QFETCH(QByteArray, contents);
    QFETCH(QString, fileAfterCreation);
    QFETCH(bool, helperActive);
    QFETCH(bool, checkForUpdates);

    QFile::remove(file());
    if (!contents.isEmpty())
        TestEnvironment::writeFile(file(), contents);
    store()->setupDefaultValues();

    QCOMPARE(TestEnvironment::pythonPlist(file()), fileAfterCreation);
    QCOMPARE(store()->helperActive(), helperActive);
    QCOMPARE(store()->checkForUpdates(), checkForUpdates);
    QVERIFY(store()->visible());
    QVERIFY(store()->autorunAtLogin());
}

void TestVTDefaultsController::settersWriteBeforeSignalling_data()
{
    QTest::addColumn<QByteArray>("property");
    QTest::addColumn<QString>("key");
    QTest::newRow("helperActive") << QByteArray("helperActive") << "active";
    QTest::newRow("checkForUpdates") << QByteArray("checkForUpdates") << "checkUpdates";
    QTest::newRow("autorunAtLogin") << QByteArray("autorunAtLogin") << "runAtLogin";
    QTest::newRow("visible") << QByteArray("visible") << "visible";
}

void TestVTDefaultsController::settersWriteBeforeSignalling()
{
    QFETCH(QByteArray, property);
    QFETCH(QString, key);
    QFile::remove(file());
    store()->setupDefaultValues();

    const QMetaProperty meta = store()->metaObject()->property(store()->metaObject()->indexOfProperty(property));
    QVariant seenInFile;
    int heard = 0;
    auto onChange = [&] {
        ++heard;
        seenInFile = PropertyList::readFile(file())->toMap().value(key);
    };
    QSignalSpy spy(store(), QByteArray("2" + meta.notifySignal().methodSignature()).constData());
    auto conn = QObject::connect(store(), &VTDefaultsController::helperActiveChanged, this, onChange);
    auto conn2 = QObject::connect(store(), &VTDefaultsController::checkForUpdatesChanged, this, onChange);
    auto conn3 = QObject::connect(store(), &VTDefaultsController::autorunAtLoginChanged, this, onChange);
    auto conn4 = QObject::connect(store(), &VTDefaultsController::visibleChanged, this, onChange);

    QVERIFY(meta.write(store(), false));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(heard, 1);
    QCOMPARE(seenInFile, QVariant(false)); // already in the file when observers hear of it
    QCOMPARE(meta.read(store()), QVariant(false));
    QVERIFY(meta.write(store(), false)); // unchanged values still notify
    QCOMPARE(spy.count(), 2);
    for (const auto &x : {conn, conn2, conn3, conn4})
        disconnect(x);
}

void TestVTDefaultsController::checkForUpdatesAlwaysNotifiesHelper()
{
    NotificationRecorder recorder;
    store()->setCheckForUpdates(true);
    store()->setCheckForUpdates(true);
    store()->setCheckForUpdates(false);
    recorder.settle();
    QCOMPARE(recorder.names(), QStringList({"vantorHelperEnableUpdates", "vantorHelperEnableUpdates",
                                            "vantorHelperDisableUpdates"}));
}

void TestVTDefaultsController::changingDictionaryNotifiesNoOne()
{
    store()->setupDefaultValues();
    const QByteArray before = TestEnvironment::readFile(file());
    NotificationRecorder recorder;
    QSignalSpy spy(store(), &VTDefaultsController::visibleChanged);
    store()->defaults().insert(QStringLiteral("visible"), false);
    recorder.settle();
    QVERIFY(!store()->visible());
    QCOMPARE(spy.count(), 0);
    QVERIFY(recorder.names().isEmpty());
    QCOMPARE(TestEnvironment::readFile(file()), before);
}

void TestVTDefaultsController::writeFailureIsLoggedAndKeptInMemory()
{
    QDir(m_env.productFolder()).removeRecursively();
    TestEnvironment::writeFile(m_env.productFolder(), "a plain file");
    VTUtil::forgetApplicationSupportFolder();
    QTest::ignoreMessage(QtWarningMsg, QStringLiteral("Could not write preferences to file: %1").arg(file()).toUtf8().constData());
    store()->setHelperActive(false);
    QVERIFY(!store()->helperActive());
    QCOMPARE(TestEnvironment::readFile(m_env.productFolder()), QByteArray("a plain file"));
}

QTEST_GUILESS_MAIN(TestVTDefaultsController)
#include "tst_vtdefaultscontroller.moc"
