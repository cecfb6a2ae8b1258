// The pane's helper control against a fake workspace: what is launched, when the
// permissions sheet appears, and what the switch stores, moves and posts.

#include "platform/Bundle.h"
#include "common/HelperIdentity.h"
#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "common/Notifications.h"
#include "PaneFixture.h"
#include "platform/ProcessInfo.h"
#include "platform/RunningApplication.h"
#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "common/VTPreferenceCommunicator.h"
#include "prefpane/VantorPref.h"

#include <QDir>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <sys/stat.h>

class TestHelperControl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void permissionsSheetOncePerRun();
    void missingHelper();
    void toggleActive_data();
    void toggleActive();
    void didSelectLaunchesOnlyWhenNoHelperRuns_data();
    void didSelectLaunchesOnlyWhenNoHelperRuns();
    void helperEndingChangesNothing();

private:
    // A pane bundle of its own; the helper executable gets mode, or is left out when mode is 0.
    QString makeBundle(unsigned mode);
    void makePane(const QString &bundlePath);
    int switchX() const;

    TestEnvironment m_env;
    QTemporaryDir m_bundles;
    int m_bundleCount = 0;
    std::unique_ptr<FakeWorkspace> m_workspace;
    std::unique_ptr<RecordingAlerts> m_alerts;
    std::unique_ptr<FakePaneHost> m_host;
    VantorPref *m_pane = nullptr;
};

QString TestHelperControl::makeBundle(unsigned mode)
{
    const QString path = m_bundles.path() + QStringLiteral("/%1/Vantor.prefPane").arg(++m_bundleCount);
    QDir().mkpath(path + QStringLiteral("/Contents/Resources"));
    QFile::copy(TestEnvironment::paneBundle() + QStringLiteral("/Contents/Info.plist"),
                path + QStringLiteral("/Contents/Info.plist"));
    if (mode) {
        const QString exe = HelperIdentity::executablePath(HelperIdentity::applicationPathInPane(path));
        TestEnvironment::writeFile(exe, "#!/bin/sh\n");
        ::chmod(QFile::encodeName(exe).constData(), mode);
    }
    return path;
}

void TestHelperControl::makePane(const QString &bundlePath)
{
    m_pane = new VantorPref;
    m_pane->initWithBundle(Bundle::bundleWithPath(bundlePath), m_host.get());
    QWidget *view = m_pane->loadMainView();
    view->setParent(&m_host->window);
    view->resize(view->sizeHint().expandedTo(view->minimumSize()));
    m_host->window.show();
}

int TestHelperControl::switchX() const
{
    return m_pane->toggleActiveButton->geometry().x();
}

void TestHelperControl::initTestCase()
{
    QVERIFY(!TestEnvironment::paneBundle().isEmpty());
    VTDefaultsController::create();
    VTPreferenceCommunicator::create();
}

void TestHelperControl::init()
{
    m_workspace = std::make_unique<FakeWorkspace>();
    m_alerts = std::make_unique<RecordingAlerts>();
    m_host = std::make_unique<FakePaneHost>();
}

void TestHelperControl::cleanup()
{
    delete m_pane;
    m_pane = nullptr;
    m_host.reset();
    m_alerts.reset();
    m_workspace.reset();
}

void TestHelperControl::permissionsSheetOncePerRun()
{
    if (qEnvironmentVariableIsSet("VANTOR_FRESH_RUN"))
        QSKIP("runs in the main run");
    const QString bundle = makeBundle(0755);
    makePane(bundle);
    m_pane->launchHelper();
    QCOMPARE(m_alerts->sheets.size(), 0);
    QCOMPARE(m_workspace->launches.size(), 1);
    QCOMPARE(m_workspace->launches.first().toLocalFile(),
             HelperIdentity::applicationPathInPane(bundle) + u'/');
    QCOMPARE(m_workspace->launchOptions.first(), Workspace::LaunchOptions(Workspace::LaunchAsync));

    // Group write is wrong too: the test is equality.
    ::chmod(QFile::encodeName(HelperIdentity::executablePath(HelperIdentity::applicationPathInPane(bundle))).constData(),
            0775);
    m_pane->launchHelper();
    m_pane->launchHelper();
    QCOMPARE(m_alerts->sheets.size(), 1);
    QCOMPARE(m_alerts->sheetWindows.first(), &m_host->window);
    QCOMPARE(m_alerts->sheets.first().messageText, QStringLiteral("Permissions Issue"));
    QCOMPARE(m_alerts->sheets.first().informativeText,
             QStringLiteral("The Vantor Helper application has the wrong permissions, and will probably not run. "
                            "Please reinstall Vantor or change the permissions manually, or contact support."));
    QCOMPARE(m_alerts->sheets.first().buttons, QStringList{QStringLiteral("OK")});
    QCOMPARE(m_workspace->launches.size(), 3);
}

void TestHelperControl::missingHelper()
{
    // The warning is shown once per process, so this case needs a process of its own.
    if (!qEnvironmentVariableIsSet("VANTOR_FRESH_RUN"))
        QSKIP("runs on its own (see tests/prefpane/CMakeLists.txt)");
    makePane(makeBundle(0));
    m_pane->launchHelper();
    QCOMPARE(m_alerts->sheets.size(), 1);
    QCOMPARE(m_alerts->sheets.first().messageText, QStringLiteral("Permissions Issue"));
    QCOMPARE(m_workspace->launches.size(), 0);
}

void TestHelperControl::toggleActive_data()
{
    QTest::addColumn<bool>("fromSwitch");
    QTest::addColumn<bool>("wasActive");
    QTest::addColumn<bool>("helperRunning");
    QTest::newRow("switch clicked on, no helper") << true << false << false;
    QTest::newRow("switch clicked off, helper running") << true << true << true;
    QTest::newRow("other control, on") << false << false << true;
    QTest::newRow("other control, off, no helper") << false << true << false;
}

void TestHelperControl::toggleActive()
{
    QFETCH(bool, fromSwitch);
    QFETCH(bool, wasActive);
    QFETCH(bool, helperRunning);
    makePane(makeBundle(0755));
    if (helperRunning)
        m_workspace->running.append(new RunningApplication(HelperIdentity::busName(), 1, m_workspace.get()));
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
    store->setHelperActive(wasActive);
    m_pane->toggleActiveButton->setChecked(wasActive);
    m_pane->setActiveButton(wasActive, false);
    QCOMPARE(switchX(), wasActive ? 142 : 89);

    NotificationRecorder recorder;
    if (fromSwitch) {
        QTest::mouseClick(m_pane->toggleActiveButton, Qt::LeftButton);
    } else {
        QPushButton other;
        m_pane->toggleActive(&other);
    }

    const bool active = !wasActive;
    QCOMPARE(m_workspace->launches.size(), helperRunning ? 0 : 1);
    QCOMPARE(m_pane->toggleActiveButton->isChecked(), active);
    QCOMPARE(store->helperActive(), active);
    QVERIFY(TestEnvironment::pythonPlist(m_env.productFolder() + QStringLiteral("/defaults.plist"))
                .contains(active ? QStringLiteral("'active': True") : QStringLiteral("'active': False")));
    QCOMPARE(ProcessInfo::processInfo()->suddenTerminationDisableCount(), 0);
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::Active)));
    recorder.settle();
    QCOMPARE(recorder.count(QLatin1String(Notifications::Active)), 1);

    // The switch slides to its new place; y (from the bottom) and size do not change.
    QTRY_COMPARE(switchX(), active ? 142 : 89);
    const QRect frame = m_pane->toggleActiveButton->geometry();
    QCOMPARE(m_pane->toggleActiveButton->parentWidget()->height() - frame.bottom() - 1, 86);
    QCOMPARE(frame.size(), QSize(40, 25));
}

void TestHelperControl::didSelectLaunchesOnlyWhenNoHelperRuns_data()
{
    QTest::addColumn<bool>("helperRunning");
    QTest::addColumn<bool>("active");
    QTest::newRow("none running, active") << false << true;
    QTest::newRow("running, inactive") << true << false;
}

void TestHelperControl::didSelectLaunchesOnlyWhenNoHelperRuns()
{
    QFETCH(bool, helperRunning);
    QFETCH(bool, active);
    makePane(makeBundle(0755));
    if (helperRunning)
        m_workspace->running.append(new RunningApplication(HelperIdentity::busName(), 1, m_workspace.get()));
    VTDefaultsController::sharedDefaultsController()->setHelperActive(active);

    m_pane->didSelect();
    QCOMPARE(m_workspace->launches.size(), helperRunning ? 0 : 1);
    // Placed at once, without sliding.
    QCOMPARE(switchX(), active ? 142 : 89);
    QCOMPARE(m_pane->toggleActiveButton->isChecked(), active);
}

void TestHelperControl::helperEndingChangesNothing()
{
    makePane(makeBundle(0755));
    VTDefaultsController::sharedDefaultsController()->setHelperActive(true);
    m_pane->didSelect();
    QCOMPARE(m_workspace->launches.size(), 1);

    NotificationRecorder recorder;
    m_workspace->running.first()->markTerminated();
    recorder.settle();
    QVERIFY(recorder.names().isEmpty());
    QCOMPARE(m_workspace->launches.size(), 1);
    QCOMPARE(m_pane->toggleActiveButton->isChecked(), true);
}

QTEST_MAIN(TestHelperControl)
#include "tst_helpercontrol.moc"
