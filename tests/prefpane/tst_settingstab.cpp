// The settings tab: its boxes go through the settings store, its buttons reach the helper,
// the help page and the uninstall sheet.

#include "platform/Bundle.h"
#include "FakePaneHost.h"
#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "common/Notifications.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "prefpane/VantorPref.h"

#include <QCheckBox>
#include <QFileInfo>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

class TestSettingsTab : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void boxesGoThroughTheStore_data();
    void boxesGoThroughTheStore();
    void buttons();

private:
    template<typename T>
    T *child(const char *name) { return m_pane.mainView()->findChild<T *>(QLatin1String(name)); }

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    FakeWorkspace m_workspace;
    QWidget m_window;
    FakePaneHost m_host;
    VantorPref m_pane;
};

void TestSettingsTab::initTestCase()
{
    Workspace::setShared(&m_workspace);
    // Stored before the pane loads: the boxes must start from the file, not from their defaults.
    VTDefaultsController::create();
    VTDefaultsController::sharedDefaultsController()->setVisible(false);

    m_host.window = &m_window;
    m_pane.initWithBundle(Bundle::bundleWithPath(TestEnvironment::paneBundle()), &m_host);
    m_pane.loadMainView()->setParent(&m_window);
    m_window.resize(800, 500);
    m_window.show();
    m_pane.mainViewDidLoad();
    m_pane.tabView->setCurrentWidget(child<QWidget>("settingsTab"));

    QVERIFY(!child<QCheckBox>("visibleCheckBox")->isChecked());
    QVERIFY(child<QCheckBox>("runAtLoginCheckBox")->isChecked());
    QVERIFY(child<QCheckBox>("checkUpdatesCheckBox")->isChecked());
}

void TestSettingsTab::boxesGoThroughTheStore_data()
{
    QTest::addColumn<QString>("box");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("property");
    QTest::addColumn<QString>("notification"); // posted when the box is switched on
    QTest::addColumn<QString>("offNotification");
    QTest::newRow("visible") << "visibleCheckBox" << "visible" << "visible" << Notifications::Visible << Notifications::Visible;
    QTest::newRow("checkUpdates") << "checkUpdatesCheckBox" << "checkUpdates" << "checkForUpdates" << Notifications::HelperEnableUpdates
                                  << Notifications::HelperDisableUpdates;
    QTest::newRow("runAtLogin") << "runAtLoginCheckBox" << "runAtLogin" << "autorunAtLogin" << QString() << QString();
}

void TestSettingsTab::boxesGoThroughTheStore()
{
    QFETCH(QString, box);
    QFETCH(QString, key);
    QFETCH(QString, property);
    QFETCH(QString, notification);
    QFETCH(QString, offNotification);
    QCheckBox *checkBox = child<QCheckBox>(qPrintable(box));
    const QString file = m_env.productFolder() + QStringLiteral("/defaults.plist");

    for (const bool on : {!checkBox->isChecked(), checkBox->isChecked()}) {
        NotificationRecorder recorder;
        // On the box itself: a wide check box takes clicks only on its box and label.
        QTest::mouseClick(checkBox, Qt::LeftButton, {}, QPoint(8, checkBox->height() / 2));
        QCOMPARE(checkBox->isChecked(), on);
        // In the file the helper reads, under the file's own key.
        const QString onDisk = TestEnvironment::pythonPlist(file);
        QVERIFY2(onDisk.contains(QStringLiteral("'%1': %2").arg(key, on ? QStringLiteral("True") : QStringLiteral("False"))),
                 qPrintable(onDisk));
        recorder.settle();
        const QString expected = on ? notification : offNotification;
        if (!expected.isEmpty())
            QCOMPARE(recorder.count(expected), 1);
    }

    // A change made elsewhere shows in the box.
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
    const bool now = checkBox->isChecked();
    QVERIFY(store->setProperty(qPrintable(property), !now));
    QCOMPARE(checkBox->isChecked(), !now);
}

void TestSettingsTab::buttons()
{
    NotificationRecorder recorder;
    QTest::mouseClick(child<QPushButton>("checkNowButton"), Qt::LeftButton);
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldCheckForUpdates)));
    recorder.settle();
    QCOMPARE(recorder.count(QLatin1String(Notifications::HelperShouldCheckForUpdates)), 1);

    QTest::mouseClick(child<QPushButton>("helpButton"), Qt::LeftButton);
    QCOMPARE(m_workspace.openedURLs, QList<QUrl>{VantorPref::faqAddress()});
    QCOMPARE(VantorPref::faqAddress().scheme(), QStringLiteral("https"));

    QTest::mouseClick(child<QPushButton>("uninstallButton"), Qt::LeftButton);
    QVERIFY(m_pane.uninstallSheet->isVisible());
    QCOMPARE(m_pane.uninstallSheet->parentWidget(), &m_window);
    m_pane.cancelSheet(nullptr);
    QVERIFY(!m_pane.uninstallSheet->isVisible());
    QVERIFY(QFileInfo::exists(TestEnvironment::paneBundle()));
}

QTEST_MAIN(TestSettingsTab)
#include "tst_settingstab.moc"
