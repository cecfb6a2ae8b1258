// The pane with the real workspace and the real helper process on the test's own bus.

#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "common/VTDefaultsController.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/PreferencesDomain.h"
#include "platform/RunningApplication.h"
#include "platform/Workspace.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QTest>

#include <optional>

namespace {

const QString kHelperName = HelperIdentity::busName();

QList<int> helperProcesses()
{
    return TestEnvironment::processesOnThisBus(TestEnvironment::helperExecutable()).keys();
}

uint nameOwnerPid()
{
    const QDBusReply<uint> pid = QDBusConnection::sessionBus().interface()->servicePid(kHelperName);
    return pid.isValid() ? pid.value() : 0;
}

void quitHelper()
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
}

// The login-item list exists, as the host makes sure it does.
void makeLoginList()
{
    PreferencesDomain loginWindow(QStringLiteral("loginwindow"));
    loginWindow.setValue(QStringLiteral("AutoLaunchedApplicationDictionary"), QVariantList{});
    QVERIFY(loginWindow.synchronize());
}

} // namespace

class TestHelperProcess : public QObject
{
    Q_OBJECT

private:
    QString helperLog() const
    {
        return QString::fromUtf8(
            TestEnvironment::readFile(m_env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log")));
    }
    VantorPref &pane() { return m_ui->pane; }

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    std::optional<PaneFixture> m_ui;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QFileInfo(TestEnvironment::helperExecutable()).isExecutable());
        QVERIFY(helperProcesses().isEmpty());
        m_ui.emplace();
        pane().mainViewDidLoad(); // starts the helper
    }

    void init()
    {
        // Every case starts with the one helper the pane launched.
        if (helperProcesses().isEmpty())
            pane().launchHelper();
        QTRY_VERIFY(nameOwnerPid() != 0);
    }

    void cleanupTestCase()
    {
        quitHelper();
        QTRY_VERIFY(helperProcesses().isEmpty());
    }

    void secondHelperLeavesTheFirst()
    {
        const uint owner = nameOwnerPid();
        QProcess second;
        second.start(TestEnvironment::helperExecutable(), {});
        QVERIFY(second.waitForFinished(5000));
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(nameOwnerPid(), owner);
        QVERIFY(helperLog().contains(QStringLiteral("another helper owns ") + HelperIdentity::busName()));
    }

    // Starting it from the login list is the login-items suites'.
    void switchReachesHelper()
    {
        makeLoginList();
        VTDefaultsController::sharedDefaultsController()->setHelperActive(false);
        pane().didSelect();
        const qsizetype logged = helperLog().size();

        // The helper reads the settings file when told: it must find the new value there.
        QTest::mouseClick(pane().toggleActiveButton, Qt::LeftButton);
        QTRY_VERIFY(
            helperLog().mid(logged).contains(QStringLiteral("com.quillfen.vantor.active: settings active=true")));
        QVERIFY(pane().autorunAtLogin());
        pane().checkForUpdates(nullptr);
        QTRY_VERIFY(helperLog().mid(logged).contains(QLatin1String(Notifications::HelperShouldCheckForUpdates)));
        QTest::mouseClick(pane().toggleActiveButton, Qt::LeftButton);
        QTRY_VERIFY(
            helperLog().mid(logged).contains(QStringLiteral("com.quillfen.vantor.active: settings active=false")));
        QVERIFY(!pane().autorunAtLogin());
    }

    void leavingThePane()
    {
        VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
        NotificationRecorder recorder;
        const QList<RunningApplication *> running =
            Workspace::shared()->runningApplicationsWithBundleIdentifier(kHelperName);
        QCOMPARE(running.size(), 1);
        const int pid = running.first()->processIdentifier();
        bool terminated = false;
        connect(running.first(), &RunningApplication::terminatedChanged, this, [&terminated] { terminated = true; });

        // Active: left running, nothing sent.
        store->setHelperActive(true);
        pane().didUnselect();
        recorder.settle();
        QCOMPARE(recorder.count(QLatin1String(Notifications::HelperShouldQuit)), 0);
        QCOMPARE(helperProcesses(), QList<int>{pid});

        // Inactive: asked to quit, and it does; its process is gone, not a zombie.
        store->setHelperActive(false);
        pane().didUnselect();
        QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldQuit)));
        QTRY_VERIFY(terminated);
        QVERIFY(!QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)));
        QVERIFY(Workspace::shared()->runningApplicationsWithBundleIdentifier(kHelperName).isEmpty());

        // Selecting the pane again brings it back.
        pane().didSelect();
        QTRY_VERIFY(nameOwnerPid() != 0);
        QCOMPARE(helperProcesses().size(), 1);
    }
};

QTEST_MAIN(TestHelperProcess)
#include "tst_helperprocess.moc"
