// An installed pane with the real workspace, helper and relaunch tool: leaving it and uninstalling.

#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "platform/FileManager.h"
#include "common/VTDefaultsController.h"
#include "platform/PreferencesDomain.h"
#include "platform/Workspace.h"

#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QTest>

#include <csignal>
#include <optional>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString kListKey = u"AutoLaunchedApplicationDictionary"_s;

void writeLoginList(const QVariantList &items)
{
    PreferencesDomain loginWindow(u"loginwindow"_s);
    loginWindow.setValue(kListKey, items);
    QVERIFY(loginWindow.synchronize());
}

// Every entry under root with what a change would alter, as find(1) sees it.
QByteArray snapshot(const QString &root, const QString &skip = u"-"_s)
{
    QProcess find;
    find.start(u"find"_s, {root, u"-path"_s, skip, u"-prune"_s, u"-o"_s, u"-printf"_s, u"%p %m %s %T@ %i\\n"_s});
    find.waitForFinished();
    return find.readAllStandardOutput();
}

// As a package install is to its user; root passes over modes but not over the immutable flag.
void setLocked(const QString &folder, bool locked)
{
    if (!locked && ::geteuid() == 0)
        QProcess::execute(u"chattr"_s, {u"-R"_s, u"-i"_s, folder});
    QProcess::execute(u"chmod"_s, {u"-R"_s, locked ? u"a-w"_s : u"u+w"_s, folder});
    if (locked && ::geteuid() == 0)
        QProcess::execute(u"chattr"_s, {u"-R"_s, u"+i"_s, folder});
}

} // namespace

class TestInstalledPane : public QObject
{
    Q_OBJECT

private:
    QString installedBundle() const { return m_env.home() + u"/.local/lib/vantor/Vantor.prefPane"_s; }
    QString relaunchCopy() const { return FileManager::temporaryDirectory() + u"relaunch"_s; }
    QString loginList() const { return PreferencesDomain(u"loginwindow"_s).filePath(); }
    QPushButton *button(QWidget *sheet, const char *name)
    {
        return sheet->findChild<QPushButton *>(QLatin1String(name));
    }
    bool install() const
    {
        return QFileInfo::exists(installedBundle())
            || QProcess::execute(u"cp"_s, {u"-a"_s, TestEnvironment::paneBundle(), installedBundle()}) == 0;
    }
    QList<int> helperProcesses() const
    {
        return TestEnvironment::processesOnThisBus(
                   HelperIdentity::executablePath(HelperIdentity::applicationPathInPane(installedBundle())))
            .keys();
    }
    QString helperLog() const
    {
        return QString::fromUtf8(TestEnvironment::readFile(m_env.home() + u"/.local/state/vantor/VantorHelper.log"_s));
    }
    VantorPref &pane() { return m_ui->pane; }
    bool textShown(const char *name)
    {
        return pane().uninstallSheet->findChild<QLabel *>(QLatin1String(name))->isVisible();
    }

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    std::optional<PaneFixture> m_ui;

private Q_SLOTS:
    void initTestCase()
    {
        QDir().mkpath(QFileInfo(installedBundle()).path());
        QVERIFY(install());
        m_ui.emplace(installedBundle());
        pane().mainViewDidLoad();
        pane().didSelect();
    }

    void init()
    {
        // Each case uninstalls a fresh copy.
        QVERIFY(install());
        m_ui->host.terminations = 0;
        // The last helper's process must be gone too, or the workspace hands it back.
        QTRY_VERIFY(Workspace::shared()->runningApplicationsWithBundleIdentifier(HelperIdentity::busName()).isEmpty()
                    || TestEnvironment::helperOwnsItsName());
        if (!TestEnvironment::helperOwnsItsName())
            pane().launchHelper();
        QTRY_VERIFY(TestEnvironment::helperOwnsItsName());
        QFile::remove(relaunchCopy());
    }

    void cleanup()
    {
        setLocked(QFileInfo(installedBundle()).path(), false);
        // A waiting relaunch tool would start this test again once it ends.
        if (const QString tool = QFileInfo(relaunchCopy()).canonicalFilePath(); !tool.isEmpty()) {
            for (int pid : TestEnvironment::processesOnThisBus(tool).keys())
                ::kill(pid, SIGTERM);
            QTRY_VERIFY(TestEnvironment::processesOnThisBus(tool).isEmpty());
        }
        if (pane().restartSheet->isVisible())
            pane().cancelSheet(nullptr);
    }

    void cleanupTestCase()
    {
        TestEnvironment::postWithGdbus(QLatin1String(Notifications::HelperShouldQuit));
        QTRY_VERIFY(!TestEnvironment::helperOwnsItsName());
    }

    // The switch reaches the helper, which stays while active. Starting it from the login list
    // is the login-items suites'.
    void switchAndLeavingThePane()
    {
        writeLoginList({});
        VTDefaultsController::sharedDefaultsController()->setHelperActive(false);
        pane().didSelect();
        const qsizetype logged = helperLog().size();
        const QList<int> pids = helperProcesses();
        QCOMPARE(pids.size(), 1);
        // A second helper leaves the first alone.
        QProcess second;
        second.start(TestEnvironment::helperExecutable(), {});
        QVERIFY(second.waitForFinished(5000));
        QVERIFY(helperLog().contains(u"another helper owns "_s + HelperIdentity::busName()));

        // The helper reads the settings file when told: it must find the new value there.
        QTest::mouseClick(pane().toggleActiveButton, Qt::LeftButton);
        QTRY_VERIFY(helperLog().mid(logged).contains(u"com.quillfen.vantor.active: settings active=true"_s));
        QVERIFY(pane().autorunAtLogin());
        pane().checkForUpdates(nullptr);
        QTRY_VERIFY(helperLog().mid(logged).contains(QLatin1String(Notifications::HelperShouldCheckForUpdates)));

        // Active: left running, nothing sent.
        NotificationRecorder recorder;
        pane().didUnselect();
        recorder.settle();
        QCOMPARE(recorder.count(QLatin1String(Notifications::HelperShouldQuit)), 0);
        QCOMPARE(helperProcesses(), pids);

        QTest::mouseClick(pane().toggleActiveButton, Qt::LeftButton);
        QTRY_VERIFY(helperLog().mid(logged).contains(u"com.quillfen.vantor.active: settings active=false"_s));
        QVERIFY(!pane().autorunAtLogin());
        // Inactive: asked to quit, and it does; its process is gone, not a zombie.
        pane().didUnselect();
        QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldQuit)));
        QTRY_VERIFY(Workspace::shared()->runningApplicationsWithBundleIdentifier(HelperIdentity::busName()).isEmpty());
        QVERIFY(!QFileInfo::exists(u"/proc/%1"_s.arg(pids.first())));

        // Selecting the pane again brings it back.
        pane().didSelect();
        QTRY_VERIFY(TestEnvironment::helperOwnsItsName());
        QCOMPARE(helperProcesses().size(), 1);
    }

    void uninstall_data()
    {
        QTest::addColumn<bool>("loginItem");
        QTest::addColumn<bool>("hasList");
        QTest::addColumn<bool>("systemWide");
        QTest::newRow("login item among others") << true << true << false;
        QTest::newRow("list of other applications") << false << true << false;
        QTest::newRow("no list at all") << false << false << false;
        // The bundle stays; the helper still stops.
        QTest::newRow("installed for all users") << false << true << true;
    }

    void uninstall()
    {
        QFETCH(bool, loginItem);
        QFETCH(bool, hasList);
        QFETCH(bool, systemWide);
        QFile::remove(loginList());
        const QVariantList others{QVariantMap{{u"Path"_s, u"/opt/Other.app"_s}}};
        if (hasList)
            writeLoginList(others);
        pane().setAutorunAtLogin(loginItem);
        QCOMPARE(pane().autorunAtLogin(), loginItem);
        const QByteArray before = snapshot(QFileInfo(loginList()).path());
        if (systemWide)
            setLocked(QFileInfo(installedBundle()).path(), true);

        // Cancelled, it changes nothing.
        const QString skip = m_env.home() + u"/.local/state"_s; // the helper's own log
        const QByteArray all = snapshot(m_env.root(), skip);
        pane().confirmUninstall(nullptr);
        QTest::mouseClick(button(pane().uninstallSheet, "cancelUninstallButton"), Qt::LeftButton);
        QVERIFY(!pane().uninstallSheet->isVisible());
        QTest::qWait(300);
        QCOMPARE(snapshot(m_env.root(), skip), all);
        QVERIFY(TestEnvironment::helperOwnsItsName());

        // When the login item goes, the bundle, no tool copy and the helper are as they were.
        QList<bool> atLoginItem;
        const QMetaObject::Connection watch = connect(&m_ui->pane, &VantorPref::autorunAtLoginChanged, this, [&] {
            atLoginItem = {QFileInfo::exists(installedBundle() + u"/Contents/Info.plist"_s),
                           QFileInfo::exists(relaunchCopy()), TestEnvironment::helperOwnsItsName()};
        });
        NotificationRecorder recorder;
        pane().confirmUninstall(nullptr);
        QCOMPARE(textShown("uninstallText"), !systemWide);
        QCOMPARE(textShown("systemUninstallText"), systemWide);
        QTest::mouseClick(button(pane().uninstallSheet, "confirmUninstallButton"), Qt::LeftButton);
        disconnect(watch);

        QCOMPARE(atLoginItem, (loginItem ? QList<bool>{true, false, true} : QList<bool>()));
        if (loginItem)
            QCOMPARE(PreferencesDomain(u"loginwindow"_s).copyValue(kListKey).toList(), others);
        else
            QCOMPARE(snapshot(QFileInfo(loginList()).path()), before);
        QCOMPARE(QFileInfo::exists(loginList()), hasList);

        // The relaunch tool runs from its copy, to wait for this process, the host.
        if (!systemWide) {
            const auto tools = TestEnvironment::processesOnThisBus(QFileInfo(relaunchCopy()).canonicalFilePath());
            QCOMPARE(tools.size(), 1);
            QCOMPARE(tools.first(),
                     QList<QByteArray>({QFile::encodeName(relaunchCopy()),
                                        QFile::encodeName(QFileInfo(u"/proc/self/exe"_s).symLinkTarget()),
                                        QByteArray::number(QCoreApplication::applicationPid())}));
        }

        // The helper is told to quit and does, from its deleted bundle.
        QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldQuit)));
        QTRY_VERIFY(!TestEnvironment::helperOwnsItsName());
        QCOMPARE(QFileInfo::exists(installedBundle() + u"/Contents/Info.plist"_s), systemWide);

        QWidget *restartSheet = pane().restartSheet;
        QVERIFY(!pane().uninstallSheet->isVisible());
        QVERIFY(restartSheet->isVisible());
        QCOMPARE(restartSheet->parentWidget(), &m_ui->window);
        QCOMPARE(restartSheet->windowModality(), Qt::WindowModal);
        QCOMPARE(m_ui->host.terminations, 0);
        QTest::mouseClick(button(restartSheet, "restartButton"), Qt::LeftButton);
        QCOMPARE(m_ui->host.terminations, 1);
        QVERIFY(!restartSheet->isVisible());
        QVERIFY(m_alerts.sheets.isEmpty());
    }
};

QTEST_MAIN(TestInstalledPane)
#include "tst_installedpane.moc"
