// The pane with the real workspace and the real helper process on the test's own bus.

#include "platform/Bundle.h"
#include "common/HelperIdentity.h"
#include "platform/DistributedNotificationCenter.h"
#include "NotificationRecorder.h"
#include "common/Notifications.h"
#include "PaneFixture.h"
#include "platform/PreferencesDomain.h"
#include "platform/RunningApplication.h"
#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "common/VTPreferenceCommunicator.h"
#include "prefpane/VantorPref.h"
#include "platform/Workspace.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QTest>

#include <memory>

namespace {

const QString kHelperName = HelperIdentity::busName();

QString helperExecutable()
{
    return TestEnvironment::helperExecutable();
}

QList<int> helperProcesses()
{
    return TestEnvironment::processesOnThisBus(helperExecutable()).keys();
}

uint nameOwnerPid()
{
    const QDBusReply<uint> pid = QDBusConnection::sessionBus().interface()->servicePid(kHelperName);
    return pid.isValid() ? pid.value() : 0;
}

QString helperLog(const TestEnvironment &env)
{
    return QString::fromUtf8(TestEnvironment::readFile(env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log")));
}

} // namespace

class TestHelperProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void launchesOneHelper();
    void secondHelperLeavesTheFirst();
    void switchStoresBeforeNotifying();
    void checkForUpdatesReachesHelper();
    void leavingThePane();
    void newSessionStartsHelperOnlyWhenOn_data();
    void newSessionStartsHelperOnlyWhenOn();

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    FakePaneHost m_host;
    std::unique_ptr<VantorPref> m_pane;
};

void TestHelperProcess::initTestCase()
{
    QVERIFY(QFileInfo(helperExecutable()).isExecutable());
    QVERIFY(helperProcesses().isEmpty());
    m_pane = std::make_unique<VantorPref>();
    m_pane->initWithBundle(Bundle::bundleWithPath(TestEnvironment::paneBundle()), &m_host);
    m_pane->loadMainView()->setParent(&m_host.window);
    m_host.window.show();
}

void TestHelperProcess::cleanupTestCase()
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
    QTRY_VERIFY(helperProcesses().isEmpty());
}

void TestHelperProcess::launchesOneHelper()
{
    m_pane->mainViewDidLoad();
    QTRY_VERIFY(nameOwnerPid() != 0);
    const uint owner = nameOwnerPid();
    QCOMPARE(helperProcesses(), QList<int>{int(owner)});
    QCOMPARE(m_alerts.sheets.size(), 0); // built with mode 0755

    m_pane->didSelect();
    m_pane->launchHelper();
    QTest::qWait(300);
    QCOMPARE(helperProcesses(), QList<int>{int(owner)});
    QCOMPARE(nameOwnerPid(), owner);
}

void TestHelperProcess::secondHelperLeavesTheFirst()
{
    const uint owner = nameOwnerPid();
    QVERIFY(owner != 0);
    QProcess second;
    second.start(helperExecutable(), {});
    QVERIFY(second.waitForFinished(5000));
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QCOMPARE(nameOwnerPid(), owner);
    QVERIFY(helperLog(m_env).contains(QStringLiteral("another helper owns ") + kHelperName));
}

void TestHelperProcess::switchStoresBeforeNotifying()
{
    // The login-item list exists, as the host makes sure it does.
    PreferencesDomain loginWindow(QStringLiteral("loginwindow"));
    loginWindow.setValue(QStringLiteral("AutoLaunchedApplicationDictionary"), QVariantList{});
    QVERIFY(loginWindow.synchronize());

    // The helper reads the settings file when told: it must find the new value there.
    VTDefaultsController::sharedDefaultsController()->setHelperActive(false);
    m_pane->didSelect();
    QVERIFY(!m_pane->toggleActiveButton->isChecked());

    QTest::mouseClick(m_pane->toggleActiveButton, Qt::LeftButton);
    QTRY_VERIFY(helperLog(m_env).contains(QStringLiteral("com.quillfen.vantor.active: settings active=true")));
    QTRY_COMPARE(m_pane->toggleActiveButton->x(), 142);
    QVERIFY(m_pane->autorunAtLogin());

    QTest::mouseClick(m_pane->toggleActiveButton, Qt::LeftButton);
    QTRY_VERIFY(helperLog(m_env).contains(QStringLiteral("com.quillfen.vantor.active: settings active=false")));
    QTRY_COMPARE(m_pane->toggleActiveButton->x(), 89);
    QVERIFY(!m_pane->autorunAtLogin());
}

void TestHelperProcess::checkForUpdatesReachesHelper()
{
    m_pane->checkForUpdates(nullptr);
    QTRY_VERIFY(helperLog(m_env).contains(QLatin1String(Notifications::HelperShouldCheckForUpdates)));
}

void TestHelperProcess::leavingThePane()
{
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
    NotificationRecorder recorder;
    const QList<RunningApplication *> running = Workspace::shared()->runningApplicationsWithBundleIdentifier(kHelperName);
    QCOMPARE(running.size(), 1);
    const int pid = running.first()->processIdentifier();
    bool terminated = false;
    connect(running.first(), &RunningApplication::terminatedChanged, this, [&terminated] { terminated = true; });

    // Active: left running, nothing sent.
    store->setHelperActive(true);
    m_pane->didUnselect();
    recorder.settle();
    QCOMPARE(recorder.count(QLatin1String(Notifications::HelperShouldQuit)), 0);
    QCOMPARE(helperProcesses(), QList<int>{pid});

    // Inactive: asked to quit, and it does; its process is gone, not a zombie.
    store->setHelperActive(false);
    m_pane->didUnselect();
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldQuit)));
    QTRY_VERIFY(terminated);
    QVERIFY(!QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)));
    QVERIFY(Workspace::shared()->runningApplicationsWithBundleIdentifier(kHelperName).isEmpty());

    // Selecting the pane again brings it back.
    m_pane->didSelect();
    QTRY_VERIFY(nameOwnerPid() != 0);
    QCOMPARE(helperProcesses().size(), 1);
}

void TestHelperProcess::newSessionStartsHelperOnlyWhenOn_data()
{
    QTest::addColumn<bool>("on");
    QTest::newRow("on") << true;
    QTest::newRow("off") << false;
}

void TestHelperProcess::newSessionStartsHelperOnlyWhenOn()
{
    QFETCH(bool, on);
    // The host prepares the session's autostart entry for the login-items agent.
    const QString autostart = m_env.configHome() + QStringLiteral("/autostart/vantor-login-items.desktop");
    if (!QFileInfo::exists(autostart)) {
        QProcess host;
        host.start(TestEnvironment::hostExecutable(), {QStringLiteral("--screenshot"), m_env.root() + QStringLiteral("/shot.png")});
        QVERIFY(host.waitForFinished(60000));
        QVERIFY(QFileInfo::exists(autostart));
    }

    PreferencesDomain loginWindow(QStringLiteral("loginwindow"));
    if (!loginWindow.copyValue(QStringLiteral("AutoLaunchedApplicationDictionary")).isValid()) {
        loginWindow.setValue(QStringLiteral("AutoLaunchedApplicationDictionary"), QVariantList{});
        QVERIFY(loginWindow.synchronize());
    }

    // Set the switch, then end the session's helper.
    VTDefaultsController::sharedDefaultsController()->setHelperActive(!on);
    m_pane->didSelect();
    m_pane->toggleActive(nullptr);
    QCOMPARE(m_pane->autorunAtLogin(), on);
    QTRY_VERIFY(nameOwnerPid() != 0);
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
    QTRY_VERIFY(helperProcesses().isEmpty());

    QProcess dex;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_DIRS"), m_env.root() + QStringLiteral("/no-system-config"));
    dex.setProcessEnvironment(env);
    dex.start(QStringLiteral("dex"), {QStringLiteral("-a"), QStringLiteral("-w")});
    QVERIFY(dex.waitForFinished(60000));
    QCOMPARE(dex.exitCode(), 0);
    if (on) {
        QTRY_VERIFY_WITH_TIMEOUT(nameOwnerPid() != 0, 10000);
        QCOMPARE(helperProcesses().size(), 1);
        DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
        QTRY_VERIFY(helperProcesses().isEmpty());
    } else {
        QTest::qWait(1000);
        QVERIFY(helperProcesses().isEmpty());
    }
}

QTEST_MAIN(TestHelperProcess)
#include "tst_helperprocess.moc"
