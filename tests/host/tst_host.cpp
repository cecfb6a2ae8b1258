// The host's window and pane lifecycle; then vantor-preferences as a real process on the test's
// bus: installed, its faults, the relaunch tool, and the login items dex starts.
#include "common/BDAlias.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/FileManager.h"
#include "platform/PreferencesDomain.h"
#include "platform/PropertyList.h"
#include "TestEnvironment.h"
#include "gui/PreferencePane.h"
#include "host/HostWindow.h"

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Records the lifecycle calls the host makes.
class RecordingPane : public PreferencePane
{
public:
    QString mainNibName() const override { return u"Recording"_s; }
    void mainViewDidLoad() override { calls << u"load"_s; }
    void didSelect() override { calls << u"select"_s; }
    void didUnselect() override { calls << u"unselect"_s; }
    QStringList calls;

protected:
    QWidget *buildMainView() override { return new QWidget; }
};

} // namespace

class TestHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_home = std::make_unique<QTemporaryDir>(); }

    void cleanup()
    {
        // A host with the pane leaves its helper running.
        TestEnvironment::postWithGdbus(u"vantorHelperShouldQuit"_s);
        QTRY_VERIFY(!TestEnvironment::helperOwnsItsName());
    }

    void lifecycleFollowsTheWindow_data()
    {
        QTest::addColumn<QString>("calls"); // the row's name is what is done to the window
        QTest::newRow("show") << "load select";
        QTest::newRow("show hide") << "load select unselect";
        QTest::newRow("show minimise") << "load select unselect";
        QTest::newRow("show minimise restore") << "load select unselect select";
        QTest::newRow("show show") << "load select";
    }

    void lifecycleFollowsTheWindow()
    {
        QFETCH(QString, calls);
        RecordingPane pane;
        HostWindow window;
        pane.initWithBundle(nullptr, &window);
        window.showPane(&pane);
        QCOMPARE(pane.calls, QStringList{u"load"_s}); // loaded once, before it is shown
        for (const QString &action : QString::fromLatin1(QTest::currentDataTag()).split(u' ')) {
            if (action == "show"_L1)
                window.show();
            else if (action == "hide"_L1)
                window.hide();
            else
                window.setWindowState(action == "minimise"_L1 ? Qt::WindowMinimized : Qt::WindowNoState);
        }
        QCOMPARE(pane.calls.join(u' '), calls);
    }

    void installedHostStartsItsPane()
    {
        // Installed for this user, where the host looks first.
        const QString prefix = m_home->path() + u"/.local"_s;
        QCOMPARE(QProcess::execute(u"cmake"_s,
                                   {u"--install"_s, qEnvironmentVariable("VANTOR_BUILD_DIR"), u"--prefix"_s, prefix}),
                 0);
        const auto run =
            TestEnvironment::run(prefix + u"/bin/vantor-preferences"_s, {u"--screenshot"_s, png()}, environment());
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out.trimmed(), u"vantor-preferences: wrote %1"_s.arg(png()));
        QImage image(png());
        QVERIFY(image.width() >= 700 && image.height() >= 400);

        // The pane ran, and its first run is done.
        QCOMPARE(TestEnvironment::pythonPlist(m_home->path() + u"/.local/share/Vantor/defaults.plist"_s),
                 u"{'active': True, 'checkUpdates': True, 'firstRun': False, "
                 "'folderAliases': [], 'runAtLogin': True, 'visible': True}"_s);
    }

    // The second start is by a program that has gone (as before a relaunch): its output is a pipe nobody reads.
    void secondStartLaunchesNoSecondHelper()
    {
        const auto helpers = [] { return TestEnvironment::processesOnThisBus(TestEnvironment::helperExecutable()); };
        const QStringList arguments{u"--pane"_s, TestEnvironment::paneBundle(), u"--screenshot"_s, png()};
        QCOMPARE(TestEnvironment::run(TestEnvironment::hostExecutable(), arguments, environment()).exitCode, 0);
        // A fresh account: the folders made for it are the user's alone, as the XDG rules ask.
        for (const char *made : {"/.local", "/.local/share", "/.config"})
            QCOMPARE(FileManager::posixPermissionsOfItemAtPath(m_home->path() + QLatin1String(made)).value_or(0),
                     0700u);
        QTRY_COMPARE(helpers().size(), 1);
        const QMap<int, QList<QByteArray>> first = helpers();
        // Started by its clean path (the helper's own output is tested with the helper).
        QCOMPARE(first.first().first(), QFile::encodeName(TestEnvironment::helperExecutable()));
        const QStringList closedPipe{u"-c"_s, u"set -o pipefail; \"$0\" \"$@\" 2>&1 | true"_s,
                                     TestEnvironment::hostExecutable()};
        QCOMPARE(TestEnvironment::run(u"bash"_s, closedPipe + arguments, environment()).exitCode, 0);
        QTest::qWait(500);
        QCOMPARE(helpers().keys(), first.keys());
    }

    // One clear line per fault; only a pane that cannot be loaded ends the host.
    void faultsAreReported_data()
    {
        QTest::addColumn<int>("exitCode"); // the row's name is the fault
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("times");
        for (const char *pane : {"pane missing", "pane empty", "Info.plist garbage", "library missing", "not a pane"})
            QTest::newRow(pane) << 1 << u"vantor.host: cannot load the pane @/Broken.prefPane: "_s << 1;
        QTest::newRow("no session bus") << 0 << u"vantor.platform: no D-Bus session bus ("_s << 1;
        QTest::newRow("data folder cannot be made")
            << 0 << u"vantor.common: Could not write preferences to file: (null)"_s << 3;
        QTest::newRow("no pane installed") << 0 << u"no Vantor pane is installed"_s << 1;
    }

    void faultsAreReported()
    {
        const QLatin1StringView fault(QTest::currentDataTag());
        QFETCH(int, exitCode);
        QFETCH(QString, line);
        QFETCH(int, times);
        const QString pane = m_home->path() + u"/Broken.prefPane"_s, info = pane + u"/Contents/Info.plist"_s;
        QStringList arguments{u"--pane"_s, exitCode ? pane : TestEnvironment::paneBundle(), u"--screenshot"_s, png()};
        if (exitCode && fault != "pane missing"_L1)
            QDir().mkpath(pane + u"/Contents/Linux"_s);
        if (fault == "Info.plist garbage"_L1)
            TestEnvironment::writeFile(info, "<plist><dict><key>");
        if (fault == "library missing"_L1 || fault == "not a pane"_L1)
            QFile::copy(TestEnvironment::paneBundle() + u"/Contents/Info.plist"_s, info);
        if (fault == "not a pane"_L1)
            QFile::copy(QStringLiteral(VANTOR_COMMON_LIBRARY_FILE), pane + u"/Contents/Linux/libVantorPref.so"_s);
        QProcessEnvironment env = environment();
        if (fault == "no session bus"_L1)
            env.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, u"unix:path=/nonexistent/bus"_s);
        if (fault == "data folder cannot be made"_L1) {
            TestEnvironment::writeFile(m_home->path() + u"/file"_s, "x");
            env.insert(u"XDG_DATA_HOME"_s, m_home->path() + u"/file/share"_s);
        }
        if (fault == "no pane installed"_L1)
            arguments = QStringList{u"--screenshot"_s, png()};

        const auto run = TestEnvironment::run(TestEnvironment::hostExecutable(), arguments, env);
        QCOMPARE(run.exitCode, exitCode);
        QVERIFY2(run.err.count(line.replace(u'@', m_home->path())) == times, qPrintable(run.err));
        if (exitCode)
            QCOMPARE(run.err.count(u"vantor.host:"_s), 1);
        QCOMPARE(QFile::exists(png()), !exitCode);
    }

    void badArguments_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("none") << QStringList{} << 2;
        QTest::newRow("no pid") << QStringList{u"/bin/true"_s} << 2;
        QTest::newRow("pid not a number") << QStringList{u"/bin/true"_s, u"12x"_s} << 2;
        QTest::newRow("pid negative") << QStringList{u"/bin/true"_s, u"-5"_s} << 2;
        QTest::newRow("application missing") << QStringList{m_env.root() + u"/nothing"_s, u"1"_s} << 1;
    }

    void badArguments()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        const TestEnvironment::Run tool = TestEnvironment::run(relaunchTool(), arguments);
        QCOMPARE(tool.exitCode, exitCode);
        QVERIFY(!tool.err.trimmed().isEmpty());
    }

    void startsAgainAsItWas()
    {
        // A stand-in application; run again, it writes to a pipe whose reader has gone.
        const QString marker = m_env.root() + u"/first-run"_s, record = m_env.root() + u"/second-run"_s;
        const QString script = m_env.root() + u"/app.sh"_s;
        TestEnvironment::writeFile(script,
                                   u"if [ -e %1 ]; then sleep 0.5; echo out; echo err >&2\n"
                                   "  echo \"$* $FLAVOUR $(pwd)\" > %2; exit 0; fi\n"
                                   "touch %1; sleep 0.5\n"_s.arg(marker, record)
                                       .toUtf8());
        QProcess app;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"FLAVOUR"_s, u"mint"_s);
        app.setProcessEnvironment(env);
        app.setWorkingDirectory(m_env.home());
        app.start(u"/bin/sh"_s, {script, u"one"_s, u"two words"_s});
        QVERIFY(app.waitForStarted());
        QTRY_VERIFY(QFileInfo::exists(marker));
        // The tool's pipes are closed when it returns, before the application writes.
        QCOMPARE(TestEnvironment::run(relaunchTool(), {u"/bin/sh"_s, QString::number(app.processId())}).exitCode, 0);
        QVERIFY(app.state() == QProcess::NotRunning || app.waitForFinished(1000));
        QTRY_COMPARE(TestEnvironment::readFile(record),
                     QByteArray("one two words mint " + QFile::encodeName(m_env.home()) + '\n'));
    }

    void hostComesBackAfterUpdate_data()
    {
        QTest::addColumn<bool>("sharedTmp");
        QTest::newRow("planted in $TMPDIR") << false;
        QTest::newRow("planted in /tmp by another user") << true;
    }

    void hostComesBackAfterUpdate()
    {
        // No runtime folder: the tool's private copy goes under $TMPDIR (or /tmp); a planted one never runs.
        QFETCH(bool, sharedTmp);
        const QString tmpBase = sharedTmp ? u"/tmp"_s : m_env.root() + u"/tmp"_s;
        const QString planted = tmpBase + u"/relaunch"_s, plantedRan = m_env.root() + u"/planted-ran"_s;
        if (sharedTmp && QFileInfo::exists(planted))
            QSKIP("/tmp/relaunch already exists on this machine");
        TestEnvironment::writeFile(planted, "#!/bin/sh\ntouch '" + QFile::encodeName(plantedRan) + "'\n");
        QFile::setPermissions(planted, QFile::Permissions(0x7777));
        if (sharedTmp && ::geteuid() == 0)
            QVERIFY(::chown(QFile::encodeName(planted).constData(), 65534, 65534) == 0); // another user's
        auto removePlanted = qScopeGuard([&] { QFile::remove(planted); });

        QByteArray token;
        QProcessEnvironment env = TestEnvironment::markedEnvironment(&token);
        env.remove(u"XDG_RUNTIME_DIR"_s);
        if (sharedTmp)
            env.remove(u"TMPDIR"_s);
        QProcess host;
        host.setProcessEnvironment(env);
        host.start(TestEnvironment::hostExecutable(), {u"--pane"_s, TestEnvironment::paneBundle()});
        QVERIFY(host.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(TestEnvironment::helperOwnsItsName(), 30000);
        // The pane subscribes to the quit last, after its start-up posts.
        QVERIFY(TestEnvironment::waitForObserver(QLatin1String(Notifications::Quit)));

        // Only copies made from here on are this host's (other tests may use /tmp meanwhile).
        const QStringList copiesBefore = QDir(tmpBase).entryList({u"vantor-*"_s}, QDir::Dirs);
        auto *center = DistributedNotificationCenter::defaultCenter();
        center->postNotificationName(QLatin1String(Notifications::RestartingAfterUpdate));
        center->postNotificationName(QLatin1String(Notifications::Quit));
        QVERIFY(host.waitForFinished(30000));
        QCOMPARE(host.exitStatus(), QProcess::NormalExit);
        QCOMPARE(host.exitCode(), 0);
        QStringList copies = QDir(tmpBase).entryList({u"vantor-*"_s}, QDir::Dirs);
        for (const QString &old : copiesBefore)
            copies.removeAll(old);

        // Back as it was started, though it had gone before the tool could look at it.
        QMap<int, QList<QByteArray>> again;
        QTRY_VERIFY_WITH_TIMEOUT(
            !(again = TestEnvironment::processesWithEnvironment(token, TestEnvironment::hostExecutable())).isEmpty(),
            30000);
        QCOMPARE(again.size(), 1);
        QCOMPARE(again.first().mid(1), (QList<QByteArray>{"--pane", QFile::encodeName(TestEnvironment::paneBundle())}));
        QVERIFY(!QFileInfo::exists(plantedRan));
        QCOMPARE(copies.size(), 1);
        QVERIFY(QFileInfo(tmpBase + u'/' + copies.first() + u"/relaunch"_s).isExecutable());
        QDir(tmpBase + u'/' + copies.first()).removeRecursively();

        // The new host is nobody's child; it may still be launching a helper, so end all until none
        // is. The helper is ended by cleanup().
        auto endAll = [&] {
            const QList<int> pids = TestEnvironment::processesWithEnvironment(token).keys();
            for (int pid : pids)
                ::kill(pid, SIGTERM);
            return pids.isEmpty();
        };
        QTRY_VERIFY_WITH_TIMEOUT(endAll(), 30000);
    }

    void newUserGetsAgentThatOpensTheList()
    {
        QVERIFY(QDir().mkpath(markers()));
        const QStringList arguments{u"--screenshot"_s, m_env.root() + u"/shot.png"_s};
        QCOMPARE(TestEnvironment::run(TestEnvironment::hostExecutable(), arguments).exitCode, 0);
        QVERIFY(QFileInfo::exists(m_env.configHome() + u"/autostart/vantor-login-items.desktop"_s));
        const QString listFile = PreferencesDomain(u"loginwindow"_s).filePath();
        QCOMPARE(TestEnvironment::pythonPlist(listFile), u"{'AutoLaunchedApplicationDictionary': []}"_s);
        QVERIFY(m_env.runAutostart());

        const QString first = makeApp(u"First"_s), moved = makeApp(u"Moved"_s), hidden = makeApp(u"Hidden"_s);
        const QByteArray movedAlias = BDAlias::aliasWithPath(moved)->aliasData();
        const QString movedNow = m_env.root() + u"/apps/elsewhere/Moved.app"_s;
        QDir().mkpath(QFileInfo(movedNow).path());
        QVERIFY(QDir().rename(moved, movedNow));
        const QVariantList list{
            QVariantMap{{u"Path"_s, first}, {u"Hide"_s, false}},
            QVariantMap{{u"Path"_s, moved}, {u"AliasData"_s, movedAlias}, {u"Hide"_s, false}},
            QVariantMap{{u"Path"_s, m_env.root() + u"/apps/Gone.app"_s}, {u"Hide"_s, false}},
            QVariantMap{{u"Path"_s, hidden}, {u"Hide"_s, true}},
        };
        QVERIFY(PropertyList::writeFile(listFile, QVariantMap{{u"AutoLaunchedApplicationDictionary"_s, list}}));

        QVERIFY(m_env.runAutostart());
        const QList<QByteArray> a = marker(u"First"_s), b = marker(u"Moved"_s), c = marker(u"Hidden"_s);
        QVERIFY(a.size() == 2 && b.size() == 2 && c.size() == 2);
        // Started one after another, so their process ids rise in list order.
        QVERIFY(a[0].toInt() < b[0].toInt());
        QVERIFY(b[0].toInt() < c[0].toInt());
        QCOMPARE(a[1], QByteArray("none"));
        QCOMPARE(c[1], QByteArray("offscreen"));
    }

private:
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"HOME"_s, m_home->path());
        for (const char *var : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR"})
            env.remove(QLatin1String(var));
        env.insert(u"QT_QPA_PLATFORM"_s, u"offscreen"_s);
        return env;
    }

    QString png() const { return m_home->path() + u"/x.png"_s; }
    static QString relaunchTool()
    {
        return HelperIdentity::relaunchToolPath(HelperIdentity::applicationPathInPane(TestEnvironment::paneBundle()));
    }
    QString markers() const { return m_env.root() + u"/markers"_s; }

    // An application bundle whose program notes its pid and display platform on start.
    QString makeApp(const QString &name)
    {
        const QString app = m_env.root() + u"/apps/"_s + name + u".app"_s;
        const QString exe = app + u"/Contents/MacOS/"_s + name, marker = markers() + u'/' + name;
        TestEnvironment::writeFile(
            exe,
            u"#!/bin/sh\necho \"$$ ${QT_QPA_PLATFORM:-none}\" > '%1.tmp' && mv '%1.tmp' '%1'\n"_s.arg(marker).toUtf8());
        QFile::setPermissions(exe, QFile::Permissions(0x7555));
        PropertyList::writeFile(
            app + u"/Contents/Info.plist"_s,
            QVariantMap{{u"CFBundleExecutable"_s, name}, {u"CFBundleIdentifier"_s, u"test."_s + name}});
        return app;
    }

    QList<QByteArray> marker(const QString &name)
    {
        const QString path = markers() + u'/' + name;
        if (!QTest::qWaitFor([&] { return QFileInfo::exists(path); }, 10000))
            return {};
        return TestEnvironment::readFile(path).trimmed().split(' ');
    }

    TestEnvironment m_env;
    std::unique_ptr<QTemporaryDir> m_home;
};

QTEST_MAIN(TestHost)
#include "tst_host.moc"
