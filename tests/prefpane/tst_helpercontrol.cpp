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

private:
    // A pane of a bundle of its own; the helper executable gets mode, or is left out when
    // mode is 0. A helper is running already when running is set.
    VantorPref &makePane(unsigned mode, bool running = false)
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

    TestEnvironment m_env;
    QTemporaryDir m_bundles;
    int m_bundleCount = 0;
    std::optional<FakeWorkspace> m_workspace;
    std::optional<RecordingAlerts> m_alerts;
    std::optional<PaneFixture> m_ui;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(!TestEnvironment::paneBundle().isEmpty());
        VTDefaultsController::create();
        VTPreferenceCommunicator::create();
    }

    void init()
    {
        VantorPref::forgetHelperPermissionsWarning();
        m_workspace.emplace();
        m_alerts.emplace();
    }

    void cleanup()
    {
        m_ui.reset();
        m_alerts.reset();
        m_workspace.reset();
    }

    void permissionsSheetOncePerRun_data()
    {
        QTest::addColumn<unsigned>("mode");
        QTest::addColumn<int>("sheets");
        QTest::newRow("0755") << 0755u << 0;
        QTest::newRow("group may write: the test is equality") << 0775u << 1;
        QTest::newRow("helper missing") << 0u << 1;
    }

    void permissionsSheetOncePerRun()
    {
        QFETCH(unsigned, mode);
        QFETCH(int, sheets);
        VantorPref &pane = makePane(mode);
        pane.launchHelper();
        pane.launchHelper();
        QCOMPARE(m_alerts->sheets.size(), sheets);
        QCOMPARE(m_workspace->launches.size(), mode ? 2 : 0);
        if (mode)
            QCOMPARE(m_workspace->launches.first().toLocalFile(),
                     HelperIdentity::applicationPathInPane(pane.bundle()->bundlePath()) + u'/');
        if (sheets) {
            QCOMPARE(m_alerts->sheetWindows.first(), &m_ui->window);
            QCOMPARE(m_alerts->sheets.first().messageText, QStringLiteral("Permissions Issue"));
            QCOMPARE(
                m_alerts->sheets.first().informativeText,
                QStringLiteral("The Vantor Helper application has the wrong permissions, and will probably not run. "
                               "Please reinstall Vantor or change the permissions manually, or contact support."));
            QCOMPARE(m_alerts->sheets.first().buttons, QStringList{QStringLiteral("OK")});
        }
    }

    void switchAndSelection_data()
    {
        QTest::addColumn<QString>("how");
        QTest::addColumn<bool>("wasActive");
        QTest::addColumn<bool>("helperRunning");
        QTest::newRow("switch clicked on, no helper") << "switch" << false << false;
        QTest::newRow("switch clicked off, helper running") << "switch" << true << true;
        QTest::newRow("other control, on") << "other" << false << true;
        QTest::newRow("other control, off, no helper") << "other" << true << false;
        QTest::newRow("selected, none running, active") << "select" << true << false;
        QTest::newRow("selected, running, inactive") << "select" << false << true;
    }

    void switchAndSelection()
    {
        QFETCH(QString, how);
        QFETCH(bool, wasActive);
        QFETCH(bool, helperRunning);
        VantorPref &pane = makePane(0755, helperRunning);
        VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
        store->setHelperActive(wasActive);

        NotificationRecorder recorder;
        if (how == QLatin1String("select")) {
            pane.didSelect();
            QCOMPARE(m_ui->host.activations, QList<bool>{false});
        } else {
            pane.toggleActiveButton->setChecked(wasActive);
            pane.setActiveButton(wasActive, false);
            QPushButton other;
            if (how == QLatin1String("switch"))
                QTest::mouseClick(pane.toggleActiveButton, Qt::LeftButton);
            else
                pane.toggleActive(&other);
        }

        const bool active = how == QLatin1String("select") ? wasActive : !wasActive;
        QCOMPARE(m_workspace->launches.size(), helperRunning ? 0 : 1);
        QCOMPARE(pane.toggleActiveButton->isChecked(), active);
        QCOMPARE(store->helperActive(), active);
        QCOMPARE(ProcessInfo::processInfo()->suddenTerminationDisableCount(), 0);
        recorder.settle();
        QCOMPARE(recorder.count(QLatin1String(Notifications::Active)), active == wasActive ? 0 : 1);

        // The helper it started ending later changes nothing and starts nothing.
        if (!helperRunning) {
            recorder.clear();
            m_workspace->running.first()->markTerminated();
            recorder.settle();
            QVERIFY(recorder.names().isEmpty());
            QCOMPARE(m_workspace->launches.size(), 1);
            QCOMPARE(pane.toggleActiveButton->isChecked(), active);
        }
    }
};

QTEST_MAIN(TestHelperControl)
#include "tst_helpercontrol.moc"
