// Uninstalling an installed copy of the pane with the real workspace, helper and relaunch tool.

#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/FileManager.h"
#include "platform/PreferencesDomain.h"
#include "platform/Workspace.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QLabel>
#include <QPushButton>
#include <QTest>

#include <csignal>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kHelperName = HelperIdentity::busName();
const QString kListKey = QStringLiteral("AutoLaunchedApplicationDictionary");

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

// As a package install is to its user: nothing in the folder or the bundle can change. Root
// passes over modes but not over the immutable flag.
void setLocked(const QString &folder, bool locked)
{
    const QString chmod = locked ? QStringLiteral("a-w") : QStringLiteral("u+w");
    const QString chattr = locked ? QStringLiteral("+i") : QStringLiteral("-i");
    if (!locked && ::geteuid() == 0)
        QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("-R"), chattr, folder});
    QProcess::execute(QStringLiteral("chmod"), {QStringLiteral("-R"), chmod, folder});
    if (locked && ::geteuid() == 0)
        QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("-R"), chattr, folder});
}

} // namespace

class TestUninstall : public QObject
{
    Q_OBJECT

private:
    QString installedBundle() const { return m_env.home() + QStringLiteral("/.local/lib/vantor/Vantor.prefPane"); }
    QString helperExecutable() const
    {
        return HelperIdentity::executablePath(HelperIdentity::applicationPathInPane(installedBundle()));
    }
    QString relaunchCopy() const { return FileManager::temporaryDirectory() + QStringLiteral("relaunch"); }
    QString loginList() const { return m_env.configHome() + QStringLiteral("/vantor/preferences/loginwindow.plist"); }
    QPushButton *button(QWidget *sheet, const char *name)
    {
        return sheet->findChild<QPushButton *>(QLatin1String(name));
    }
    bool install() const
    {
        return QFileInfo::exists(installedBundle())
            || QProcess::execute(QStringLiteral("cp"),
                                 {QStringLiteral("-a"), TestEnvironment::paneBundle(), installedBundle()})
            == 0;
    }
    bool textShown(const char *name)
    {
        return m_ui->pane.uninstallSheet->findChild<QLabel *>(QLatin1String(name))->isVisible();
    }
    void killRelaunchTools()
    {
        const QString tool = QFileInfo(relaunchCopy()).canonicalFilePath();
        if (tool.isEmpty())
            return;
        for (int pid : TestEnvironment::processesOnThisBus(tool).keys())
            ::kill(pid, SIGTERM);
        QTRY_VERIFY(TestEnvironment::processesOnThisBus(tool).isEmpty());
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
        m_ui->pane.mainViewDidLoad();
        m_ui->pane.didSelect();
    }

    void init()
    {
        // Each case uninstalls a fresh copy.
        QVERIFY(install());
        m_ui->host.terminations = 0;
        // The last case's helper has gone from the bus; its process must be gone too, or the
        // workspace hands it back instead of starting a new one.
        QTRY_VERIFY(Workspace::shared()->runningApplicationsWithBundleIdentifier(kHelperName).isEmpty()
                    || helperOwnsItsName());
        if (!helperOwnsItsName())
            m_ui->pane.launchHelper();
        QTRY_VERIFY(helperOwnsItsName());
        QFile::remove(relaunchCopy());
    }

    void cleanup()
    {
        setLocked(QFileInfo(installedBundle()).path(), false);
        // A waiting relaunch tool would start this test again once it ends.
        killRelaunchTools();
        if (QWidget *sheet = m_ui->pane.restartSheet; sheet->isVisible())
            m_ui->pane.cancelSheet(nullptr);
    }

    void cleanupTestCase()
    {
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::HelperShouldQuit));
        QTRY_VERIFY(TestEnvironment::processesOnThisBus(QFileInfo(helperExecutable()).canonicalFilePath()).isEmpty());
        QTRY_VERIFY(!helperOwnsItsName());
    }

    void cancellingChangesNothing()
    {
        const QString skip = m_env.home() + QStringLiteral("/.local/state"); // the helper's own log
        const QStringList before = snapshot(m_env.root(), skip);

        m_ui->pane.confirmUninstall(nullptr);
        QWidget *sheet = m_ui->pane.uninstallSheet;
        QVERIFY(sheet->isVisible());
        QCOMPARE(sheet->parentWidget(), &m_ui->window);
        QCOMPARE(sheet->windowModality(), Qt::WindowModal);

        QTest::mouseClick(button(sheet, "cancelUninstallButton"), Qt::LeftButton);
        QVERIFY(!sheet->isVisible());
        QTest::qWait(300);
        QCOMPARE(snapshot(m_env.root(), skip), before);
        QVERIFY(helperOwnsItsName());

        // The window is free for the next sheet.
        m_ui->pane.confirmUninstall(nullptr);
        QVERIFY(sheet->isVisible());
        m_ui->pane.cancelSheetAction(nullptr);
        QVERIFY(!sheet->isVisible());
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
        const QVariantList others{QVariantMap{{QStringLiteral("Path"), QStringLiteral("/opt/Other.app")}}};
        if (hasList) {
            PreferencesDomain loginWindow(QStringLiteral("loginwindow"));
            loginWindow.setValue(kListKey, others);
            QVERIFY(loginWindow.synchronize());
        }
        m_ui->pane.setAutorunAtLogin(loginItem);
        QCOMPARE(m_ui->pane.autorunAtLogin(), loginItem);
        const QStringList before = snapshot(QFileInfo(loginList()).path(), QStringLiteral("\n"));
        if (systemWide)
            setLocked(QFileInfo(installedBundle()).path(), true);

        // At the moment the login item goes, nothing else has changed yet.
        struct {
            bool seen = false, bundleThere = false, toolCopied = true, helperRunning = false;
        } atLoginItem;
        const QMetaObject::Connection watch = connect(&m_ui->pane, &VantorPref::autorunAtLoginChanged, this, [&] {
            atLoginItem = {true, QFileInfo::exists(installedBundle() + QStringLiteral("/Contents/Info.plist")),
                           QFileInfo::exists(relaunchCopy()), helperOwnsItsName()};
        });
        NotificationRecorder recorder;
        m_ui->pane.confirmUninstall(nullptr);
        QCOMPARE(textShown("uninstallText"), !systemWide);
        QCOMPARE(textShown("systemUninstallText"), systemWide);
        QTest::mouseClick(button(m_ui->pane.uninstallSheet, "confirmUninstallButton"), Qt::LeftButton);
        disconnect(watch);

        QCOMPARE(atLoginItem.seen, loginItem);
        if (loginItem) {
            QVERIFY(atLoginItem.bundleThere);
            QVERIFY(!atLoginItem.toolCopied);
            QVERIFY(atLoginItem.helperRunning);
            QCOMPARE(PreferencesDomain(QStringLiteral("loginwindow")).copyValue(kListKey).toList(), others);
        } else {
            QCOMPARE(snapshot(QFileInfo(loginList()).path(), QStringLiteral("\n")), before);
        }
        QCOMPARE(QFileInfo::exists(loginList()), hasList);

        // The relaunch tool runs from its copy and waits for this process, the host.
        if (!systemWide) {
            const QMap<int, QList<QByteArray>> tools =
                TestEnvironment::processesOnThisBus(QFileInfo(relaunchCopy()).canonicalFilePath());
            QCOMPARE(tools.size(), 1);
            const QList<QByteArray> expected{
                QFile::encodeName(relaunchCopy()),
                QFile::encodeName(QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget()),
                QByteArray::number(QCoreApplication::applicationPid())};
            QCOMPARE(tools.first(), expected);
            QTest::qWait(200);
            const QByteArray stat = TestEnvironment::readFile(QStringLiteral("/proc/%1/stat").arg(tools.firstKey()));
            QVERIFY2(stat.contains(") S "), stat.constData()); // asleep, waiting
        }

        // The helper is told to quit and does, from its deleted bundle.
        QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldQuit)));
        QTRY_VERIFY(!helperOwnsItsName());
        QCOMPARE(QFileInfo::exists(installedBundle() + QStringLiteral("/Contents/Info.plist")), systemWide);

        QWidget *restartSheet = m_ui->pane.restartSheet;
        QVERIFY(!m_ui->pane.uninstallSheet->isVisible());
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

QTEST_MAIN(TestUninstall)
#include "tst_uninstall.moc"
