// The pane's helper control against a fake workspace: what is launched, when the
// permissions sheet appears, and what the switch stores, moves and posts.

#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "common/VTDefaultsController.h"
#include "common/VTPreferenceCommunicator.h"
#include "platform/ProcessInfo.h"
#include "platform/RunningApplication.h"

#include <QDir>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include <optional>
#include <sys/stat.h>

class TestHelperControl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void permissionsSheetOncePerRun_data();
    void permissionsSheetOncePerRun();
    void toggleActive_data();
    void toggleActive();
    void didSelectLaunchesOnlyWhenNoHelperRuns_data();
    void didSelectLaunchesOnlyWhenNoHelperRuns();
    void helperEndingChangesNothing();

private:
    // A pane of a bundle of its own; the helper executable gets mode, or is left out when
    // mode is 0. A helper is running already when running is set.
    VantorPref &makePane(unsigned mode, bool running = false);
    int switchX() { return m_ui->pane.toggleActiveButton->geometry().x(); }

    TestEnvironment m_env;
    QTemporaryDir m_bundles;
    int m_bundleCount = 0;
    std::optional<FakeWorkspace> m_workspace;
    std::optional<RecordingAlerts> m_alerts;
    std::optional<PaneFixture> m_ui;
};

VantorPref &TestHelperControl::makePane(unsigned mode, bool running)
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
    if (running)
        m_workspace->running.append(new RunningApplication(HelperIdentity::busName(), 1, &*m_workspace));
    m_ui.emplace(path);
    return m_ui->pane;
}

void TestHelperControl::initTestCase()
{
    QVERIFY(!TestEnvironment::paneBundle().isEmpty());
    VTDefaultsController::create();
    VTPreferenceCommunicator::create();
}

void TestHelperControl::init()
{
    VantorPref::forgetHelperPermissionsWarning();
    m_workspace.emplace();
    m_alerts.emplace();
}

void TestHelperControl::cleanup()
{
    m_ui.reset();
    m_alerts.reset();
    m_workspace.reset();
}

void TestHelperControl::permissionsSheetOncePerRun_data()
{
    QTest::addColumn<unsigned>("mode");
    QTest::addColumn<int>("sheets");
    QTest::newRow("0755") << 0755u << 0;
    QTest::newRow("group may write: the test is equality") << 0775u << 1;
    QTest::newRow("helper missing") << 0u << 1;
}

void TestHelperControl::permissionsSheetOncePerRun()
{
    QFETCH(unsigned, mode);
    QFETCH(int, sheets);
    VantorPref &pane = makePane(mode);
    pane.launchHelper();
    pane.launchHelper();
    QCOMPARE(m_alerts->sheets.size(), sheets);
    QCOMPARE(m_workspace->launches.size(), mode ? 2 : 0);
    if (mode) {
        QCOMPARE(m_workspace->launches.first().toLocalFile(),
                 HelperIdentity::applicationPathInPane(pane.bundle()->bundlePath()) + u'/');
        QCOMPARE(m_workspace->launchOptions.first(), Workspace::LaunchOptions(Workspace::LaunchAsync));
    }
    if (sheets) {
        QCOMPARE(m_alerts->sheetWindows.first(), &m_ui->window);
        QCOMPARE(m_alerts->sheets.first().messageText, QStringLiteral("Permissions Issue"));
        QCOMPARE(m_alerts->sheets.first().informativeText,
                 QStringLiteral("The Vantor Helper application has the wrong permissions, and will probably not run. "
                                "Please reinstall Vantor or change the permissions manually, or contact support."));
        QCOMPARE(m_alerts->sheets.first().buttons, QStringList{QStringLiteral("OK")});
    }
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
    VantorPref &pane = makePane(0755, helperRunning);
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
    store->setHelperActive(wasActive);
    pane.toggleActiveButton->setChecked(wasActive);
    pane.setActiveButton(wasActive, false);
    QCOMPARE(switchX(), wasActive ? 142 : 89);

    NotificationRecorder recorder;
    if (fromSwitch) {
        QTest::mouseClick(pane.toggleActiveButton, Qt::LeftButton);
    } else {
        QPushButton other;
        pane.toggleActive(&other);
    }

    const bool active = !wasActive;
    QCOMPARE(m_workspace->launches.size(), helperRunning ? 0 : 1);
    QCOMPARE(pane.toggleActiveButton->isChecked(), active);
    QCOMPARE(store->helperActive(), active);
    QVERIFY(TestEnvironment::pythonPlist(m_env.productFolder() + QStringLiteral("/defaults.plist"))
                .contains(active ? QStringLiteral("'active': True") : QStringLiteral("'active': False")));
    QCOMPARE(ProcessInfo::processInfo()->suddenTerminationDisableCount(), 0);
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::Active)));
    recorder.settle();
    QCOMPARE(recorder.count(QLatin1String(Notifications::Active)), 1);

    // The switch slides to its new place; y (from the bottom) and size do not change.
    QTRY_COMPARE(switchX(), active ? 142 : 89);
    const QRect frame = pane.toggleActiveButton->geometry();
    QCOMPARE(pane.toggleActiveButton->parentWidget()->height() - frame.bottom() - 1, 86);
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
    VantorPref &pane = makePane(0755, helperRunning);
    VTDefaultsController::sharedDefaultsController()->setHelperActive(active);

    pane.didSelect();
    QCOMPARE(m_ui->host.activations, QList<bool>{false});
    QCOMPARE(m_workspace->launches.size(), helperRunning ? 0 : 1);
    QCOMPARE(pane.toggleActiveButton->isChecked(), active);
    // Placed at once, without sliding: 86 above the bottom of its superview, 40 by 25.
    const int superviewHeight = pane.toggleActiveButton->parentWidget()->height();
    QCOMPARE(pane.toggleActiveButton->geometry(), QRect(active ? 142 : 89, superviewHeight - 86 - 25, 40, 25));
}

void TestHelperControl::helperEndingChangesNothing()
{
    VantorPref &pane = makePane(0755);
    VTDefaultsController::sharedDefaultsController()->setHelperActive(true);
    pane.didSelect();
    QCOMPARE(m_workspace->launches.size(), 1);

    NotificationRecorder recorder;
    m_workspace->running.first()->markTerminated();
    recorder.settle();
    QVERIFY(recorder.names().isEmpty());
    QCOMPARE(m_workspace->launches.size(), 1);
    QCOMPARE(pane.toggleActiveButton->isChecked(), true);
}

QTEST_MAIN(TestHelperControl)
#include "tst_helpercontrol.moc"
