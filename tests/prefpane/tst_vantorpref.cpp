#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "FakePaneHost.h"
#include "NotificationRecorder.h"
#include "platform/PropertyList.h"
#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "prefpane/VantorPref.h"

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

// The pane driven as the host drives it, on a real session bus.
class TestVantorPref : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void startUpAnnouncesVersionThenUpdateChoice();
    void visibleChangePostsOnce();
    void otherContextsAreIgnored();
    void showHistoryBringsFirstTab();
    void quitNotificationTerminatesHost();
    void selectPlacesSwitch_data();
    void selectPlacesSwitch();
    void unselectAsksInactiveHelperToQuit_data();
    void unselectAsksInactiveHelperToQuit();

private:
    VTDefaultsController *store() const { return VTDefaultsController::sharedDefaultsController(); }

    TestEnvironment m_env;
    FakePaneHost m_host;
    VantorPref m_pane;
    QString m_bundleVersion;
};

void TestVantorPref::initTestCase()
{
    Bundle *bundle = Bundle::bundleWithPath(TestEnvironment::paneBundle());
    QVERIFY(bundle);
    m_bundleVersion = bundle->objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString();
    QVERIFY(!m_bundleVersion.isEmpty());
    m_pane.initWithBundle(bundle, &m_host);
    QCOMPARE(m_pane.mainNibName(), QStringLiteral("VantorPref"));
    m_host.window = m_pane.loadMainView();
    QVERIFY(m_host.window);
}

void TestVantorPref::startUpAnnouncesVersionThenUpdateChoice()
{
    NotificationRecorder recorder;
    m_pane.mainViewDidLoad();
    recorder.settle();

    QCOMPARE(m_pane.versionNumberTextField->text(), m_bundleVersion);
    QCOMPARE(recorder.names(), QStringList({"com.quillfen.vantor.version", "vantorHelperEnableUpdates"}));
    QCOMPARE(recorder.userInfos().first(), QVariantMap({{"version", m_bundleVersion}}));
    // The first run is marked done.
    const QVariantMap file =
        PropertyList::readFile(m_env.productFolder() + QStringLiteral("/defaults.plist"))->toMap();
    QCOMPARE(file.value("firstRun"), QVariant(false));
    QVERIFY(!store()->firstRun());
}

void TestVantorPref::visibleChangePostsOnce()
{
    NotificationRecorder recorder;
    store()->setVisible(false);
    store()->setHelperActive(true);
    store()->setAutorunAtLogin(store()->autorunAtLogin());
    recorder.settle();
    QCOMPARE(recorder.count(QStringLiteral("com.quillfen.vantor.visible")), 1);
    QCOMPARE(recorder.names().size(), 1);
}

void TestVantorPref::otherContextsAreIgnored()
{
    NotificationRecorder recorder;
    m_pane.observeValueForKeyPath(QStringLiteral("visible"), store(), {}, nullptr);
    m_pane.observeValueForKeyPath(QStringLiteral("helperActive"), store(), {}, &m_pane);
    recorder.settle();
    QVERIFY(recorder.names().isEmpty());
}

void TestVantorPref::showHistoryBringsFirstTab()
{
    m_pane.tabView->addTab(new QWidget, QStringLiteral("Other"));
    m_pane.tabView->setCurrentIndex(1);
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("showHistory"));
    QTRY_COMPARE(m_pane.tabView->currentIndex(), 0);
}

void TestVantorPref::quitNotificationTerminatesHost()
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("com.quillfen.vantor.quit"));
    QTRY_COMPARE(m_host.terminations, 1);
}

void TestVantorPref::selectPlacesSwitch_data()
{
    QTest::addColumn<bool>("active");
    QTest::addColumn<int>("x");
    QTest::newRow("off") << false << 89;
    QTest::newRow("on") << true << 142;
}

void TestVantorPref::selectPlacesSwitch()
{
    QFETCH(bool, active);
    QFETCH(int, x);
    store()->setHelperActive(active);
    m_host.activations.clear();
    m_pane.didSelect();

    QCOMPARE(m_host.activations, QList<bool>{false});
    QCOMPARE(m_pane.toggleActiveButton->isChecked(), active);
    // 86 above the bottom of its superview, 40 by 25, with no animation.
    const int superviewHeight = m_pane.toggleActiveButton->parentWidget()->height();
    QCOMPARE(m_pane.toggleActiveButton->geometry(), QRect(x, superviewHeight - 86 - 25, 40, 25));
}

void TestVantorPref::unselectAsksInactiveHelperToQuit_data()
{
    QTest::addColumn<bool>("active");
    QTest::addColumn<QStringList>("posted");
    QTest::newRow("inactive") << false << QStringList{"vantorHelperShouldQuit"};
    QTest::newRow("active") << true << QStringList();
}

void TestVantorPref::unselectAsksInactiveHelperToQuit()
{
    QFETCH(bool, active);
    QFETCH(QStringList, posted);
    store()->setHelperActive(active);
    NotificationRecorder recorder;
    m_pane.didUnselect();
    recorder.settle();
    QCOMPARE(recorder.names(), posted);
}

QTEST_MAIN(TestVantorPref)
#include "tst_vantorpref.moc"
