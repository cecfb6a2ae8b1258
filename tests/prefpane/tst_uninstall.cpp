// Uninstalling an installed copy of the pane with the real workspace, helper and relaunch tool.

#include "platform/Bundle.h"
#include "common/HelperIdentity.h"
#include "platform/DistributedNotificationCenter.h"
#include "FakePaneHost.h"
#include "platform/FileManager.h"
#include "NotificationRecorder.h"
#include "common/Notifications.h"
#include "platform/PreferencesDomain.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "prefpane/VantorPref.h"
#include "platform/Workspace.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QTest>

#include <csignal>
#include <sys/stat.h>

namespace {

const QString kHelperName = HelperIdentity::busName();
const QString kListKey = QStringLiteral("AutoLaunchedApplicationDictionary");

QMap<int, QList<QByteArray>> processesRunning(const QString &executable)
{
    return TestEnvironment::processesOnThisBus(executable);
}

bool helperOwnsItsName()
{
    return QDBusConnection::sessionBus().interface()->isServiceRegistered(kHelperName).value();
}

// Every entry under root with what a change would alter.
QStringList snapshot(const QString &root, const QString &skip)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (path.startsWith(skip))
            continue;
        struct stat st = {};
        ::lstat(QFile::encodeName(path).constData(), &st);
        entries << QStringLiteral("%1 %2 %3 %4.%5 %6")
                       .arg(path)
                       .arg(st.st_mode, 0, 8)
                       .arg(st.st_size)
                       .arg(st.st_mtim.tv_sec)
                       .arg(st.st_mtim.tv_nsec)
                       .arg(st.st_ino);
    }
    entries.sort();
    return entries;
}

} // namespace

class TestUninstall : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void cancellingChangesNothing();
    void uninstallWithLoginItem();
    void uninstallWithoutLoginItemLeavesTheListAlone_data();
    void uninstallWithoutLoginItemLeavesTheListAlone();

private:
    QString installedBundle() const { return m_env.home() + QStringLiteral("/.local/lib/vantor/Vantor.prefPane"); }
    QString helperExecutable() const
    {
        return HelperIdentity::executablePath(HelperIdentity::applicationPathInPane(installedBundle()));
    }
    QString relaunchCopy() const { return FileManager::temporaryDirectory() + QStringLiteral("relaunch"); }
    QString loginList() const { return m_env.configHome() + QStringLiteral("/vantor/preferences/loginwindow.plist"); }
    QPushButton *button(QWidget *sheet, const char *name) { return sheet->findChild<QPushButton *>(QLatin1String(name)); }
    void killRelaunchTools();

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    QWidget m_window;
    FakePaneHost m_host;
    VantorPref m_pane;
};

void TestUninstall::initTestCase()
{
    m_host.window = &m_window;
    m_window.resize(800, 500);
    QDir().mkpath(QFileInfo(installedBundle()).path());
    QCOMPARE(QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), TestEnvironment::paneBundle(), installedBundle()}), 0);
    m_pane.initWithBundle(Bundle::bundleWithPath(installedBundle()), &m_host);
    m_pane.loadMainView()->setParent(&m_window);
    m_window.show();
    m_pane.mainViewDidLoad();
    m_pane.didSelect();
    QTRY_VERIFY(helperOwnsItsName());
}

void TestUninstall::init()
{
    // Each case uninstalls a fresh copy.
    if (!QFileInfo::exists(installedBundle()))
        QCOMPARE(QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), TestEnvironment::paneBundle(), installedBundle()}), 0);
    // The last case's helper has gone from the bus; its process must be gone too, or the
    // workspace hands it back instead of starting a new one.
    QTRY_VERIFY(Workspace::shared()->runningApplicationsWithBundleIdentifier(kHelperName).isEmpty() || helperOwnsItsName());
    if (!helperOwnsItsName())
        m_pane.launchHelper();
    QTRY_VERIFY(helperOwnsItsName());
    QFile::remove(relaunchCopy());
}

void TestUninstall::cleanup()
{
    // A waiting relaunch tool would start this test again once it ends.
    killRelaunchTools();
    if (QWidget *sheet = m_pane.restartSheet; sheet->isVisible())
        m_pane.cancelSheet(nullptr);
}

void TestUninstall::cleanupTestCase()
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
    QTRY_VERIFY(processesRunning(QFileInfo(helperExecutable()).canonicalFilePath()).isEmpty());
    QTRY_VERIFY(!helperOwnsItsName());
}

void TestUninstall::killRelaunchTools()
{
    const QString tool = QFileInfo(relaunchCopy()).canonicalFilePath();
    if (tool.isEmpty())
        return;
    for (int pid : processesRunning(tool).keys())
        ::kill(pid, SIGTERM);
    QTRY_VERIFY(processesRunning(tool).isEmpty());
}

void TestUninstall::cancellingChangesNothing()
{
    const QString skip = m_env.home() + QStringLiteral("/.local/state"); // the helper's own log
    const QStringList before = snapshot(m_env.root(), skip);

    m_pane.confirmUninstall(nullptr);
    QWidget *sheet = m_pane.uninstallSheet;
    QVERIFY(sheet->isVisible());
    QCOMPARE(sheet->parentWidget(), &m_window);
    QCOMPARE(sheet->windowModality(), Qt::WindowModal);

    QTest::mouseClick(button(sheet, "cancelUninstallButton"), Qt::LeftButton);
    QVERIFY(!sheet->isVisible());
    QTest::qWait(300);
    QCOMPARE(snapshot(m_env.root(), skip), before);
    QVERIFY(helperOwnsItsName());

    // The window is free for the next sheet.
    m_pane.confirmUninstall(nullptr);
    QVERIFY(sheet->isVisible());
    m_pane.cancelSheetAction(nullptr);
    QVERIFY(!sheet->isVisible());
}

void TestUninstall::uninstallWithLoginItem()
{
    PreferencesDomain loginWindow(QStringLiteral("loginwindow"));
    const QVariantMap other{{QStringLiteral("Path"), QStringLiteral("/usr/bin/Other.app")},
                            {QStringLiteral("Hide"), false}};
    loginWindow.setValue(kListKey, QVariantList{other});
    QVERIFY(loginWindow.synchronize());
    m_pane.setAutorunAtLogin(true);
    QVERIFY(m_pane.autorunAtLogin());

    // At the moment the login item goes, nothing else has changed yet.
    struct {
        bool seen = false, bundleThere = false, toolCopied = true, helperRunning = false;
    } atLoginItem;
    const QMetaObject::Connection watch = connect(&m_pane, &VantorPref::autorunAtLoginChanged, this, [&] {
        atLoginItem = {true, QFileInfo::exists(installedBundle() + QStringLiteral("/Contents/Info.plist")),
                       QFileInfo::exists(relaunchCopy()), helperOwnsItsName()};
    });

    NotificationRecorder recorder;
    const qint64 me = QCoreApplication::applicationPid();
    m_pane.confirmUninstall(nullptr);
    QTest::mouseClick(button(m_pane.uninstallSheet, "confirmUninstallButton"), Qt::LeftButton);
    disconnect(watch);

    QVERIFY(atLoginItem.seen);
    QVERIFY(atLoginItem.bundleThere);
    QVERIFY(!atLoginItem.toolCopied);
    QVERIFY(atLoginItem.helperRunning);
    QCOMPARE(PreferencesDomain(QStringLiteral("loginwindow")).copyValue(kListKey).toList(), QVariantList{other});
    QVERIFY(!TestEnvironment::pythonPlist(loginList()).contains(HelperIdentity::resourceName()));
    QVERIFY(TestEnvironment::pythonPlist(loginList()).contains(QLatin1String("Other.app")));

    // The relaunch tool runs from its copy and waits for this process, the host.
    const QMap<int, QList<QByteArray>> tools = processesRunning(QFileInfo(relaunchCopy()).canonicalFilePath());
    QCOMPARE(tools.size(), 1);
    const QList<QByteArray> expected{QFile::encodeName(relaunchCopy()),
                                     QFile::encodeName(QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget()),
                                     QByteArray::number(me)};
    QCOMPARE(tools.first(), expected);
    QTest::qWait(200);
    const QByteArray stat = TestEnvironment::readFile(QStringLiteral("/proc/%1/stat").arg(tools.firstKey()));
    QVERIFY2(stat.contains(") S "), stat.constData()); // asleep, waiting

    // The helper is told to quit and does, from its deleted bundle.
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldQuit)));
    QTRY_VERIFY(!helperOwnsItsName());
    QVERIFY(!QFileInfo::exists(installedBundle()));

    QWidget *restartSheet = m_pane.restartSheet;
    QVERIFY(!m_pane.uninstallSheet->isVisible());
    QVERIFY(restartSheet->isVisible());
    QCOMPARE(restartSheet->parentWidget(), &m_window);
    QCOMPARE(restartSheet->windowModality(), Qt::WindowModal);

    QCOMPARE(m_host.terminations, 0);
    QTest::mouseClick(button(restartSheet, "restartButton"), Qt::LeftButton);
    QCOMPARE(m_host.terminations, 1);
    QVERIFY(!restartSheet->isVisible());
    QVERIFY(m_alerts.sheets.isEmpty());
}

void TestUninstall::uninstallWithoutLoginItemLeavesTheListAlone_data()
{
    QTest::addColumn<bool>("hasList");
    QTest::newRow("list of other applications") << true;
    QTest::newRow("no list at all") << false;
}

void TestUninstall::uninstallWithoutLoginItemLeavesTheListAlone()
{
    QFETCH(bool, hasList);
    m_host.terminations = 0;
    QFile::remove(loginList());
    if (hasList) {
        PreferencesDomain loginWindow(QStringLiteral("loginwindow"));
        loginWindow.setValue(kListKey, QVariantList{QVariantMap{{QStringLiteral("Path"), QStringLiteral("/opt/Other.app")}}});
        QVERIFY(loginWindow.synchronize());
    }
    QVERIFY(!m_pane.autorunAtLogin());
    const QStringList before = snapshot(QFileInfo(loginList()).path(), QStringLiteral("\n"));

    m_pane.confirmUninstall(nullptr);
    m_pane.uninstall(nullptr);

    QVERIFY(!QFileInfo::exists(installedBundle()));
    QVERIFY(m_pane.restartSheet->isVisible());
    QTRY_VERIFY(!helperOwnsItsName());
    QCOMPARE(snapshot(QFileInfo(loginList()).path(), QStringLiteral("\n")), before);
    QCOMPARE(QFileInfo::exists(loginList()), hasList);
    m_pane.restart(nullptr);
    QCOMPARE(m_host.terminations, 1);
}

QTEST_MAIN(TestUninstall)
#include "tst_uninstall.moc"
