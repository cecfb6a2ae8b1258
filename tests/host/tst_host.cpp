#include "NotificationRecorder.h"
#include "TestEnvironment.h"
#include "common/HelperIdentity.h"
#include "platform/PropertyList.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

// vantor-preferences as a user starts it: a real process on the test's session bus.
class TestHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void installedHostStartsItsPane();
    void storedSettingsThroughStartUp_data();
    void storedSettingsThroughStartUp();
    void brokenPaneIsOneLineAndExitOne_data();
    void brokenPaneIsOneLineAndExitOne();
    void noPaneInstalledSaysSo();
    void quitNotificationFromAnotherProcess();
    void secondStartLaunchesNoSecondHelper();
    void faultsAreReportedNotFatal_data();
    void faultsAreReportedNotFatal();
    void survivesClosedOutput();

private:
    struct Run {
        int exitCode = -1;
        QString out;
        QString err;
    };
    QProcessEnvironment environment() const;
    Run runHost(const QStringList &args, const QProcessEnvironment &env,
                const QString &host = TestEnvironment::hostExecutable());
    Run screenshot(const QProcessEnvironment &env)
    {
        return runHost({QStringLiteral("--pane"), TestEnvironment::paneBundle(), QStringLiteral("--screenshot"),
                        m_home->path() + QStringLiteral("/x.png")},
                       env);
    }
    QString defaultsFile() const { return m_home->path() + QStringLiteral("/.local/share/Vantor/defaults.plist"); }
    static bool helperOwnsItsName()
    {
        return QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName());
    }

    std::unique_ptr<QTemporaryDir> m_home;
    const QString m_allDefaults = QStringLiteral("{'active': True, 'checkUpdates': True, 'firstRun': False, "
                                                 "'folderAliases': [], 'runAtLogin': True, 'visible': True}");
};

void TestHost::init()
{
    m_home = std::make_unique<QTemporaryDir>();
}

void TestHost::cleanup()
{
    // A host with the pane leaves its helper running.
    TestEnvironment::postWithGdbus(QStringLiteral("vantorHelperShouldQuit"));
    QTRY_VERIFY(!helperOwnsItsName());
}

QProcessEnvironment TestHost::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), m_home->path());
    for (const char *var : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR"})
        env.remove(QLatin1String(var));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    return env;
}

TestHost::Run TestHost::runHost(const QStringList &args, const QProcessEnvironment &env, const QString &program)
{
    QProcess host;
    host.setProcessEnvironment(env);
    host.start(program, args);
    if (!host.waitForFinished(60000))
        host.kill();
    return {host.exitStatus() == QProcess::NormalExit ? host.exitCode() : -1,
            QString::fromUtf8(host.readAllStandardOutput()), QString::fromUtf8(host.readAllStandardError())};
}

void TestHost::installedHostStartsItsPane()
{
    // Installed for this user, where the host looks first.
    const QString prefix = m_home->path() + QStringLiteral("/.local");
    QCOMPARE(QProcess::execute(QStringLiteral("cmake"),
                               {QStringLiteral("--install"), qEnvironmentVariable("VANTOR_BUILD_DIR"),
                                QStringLiteral("--prefix"), prefix}),
             0);
    NotificationRecorder recorder;
    const QString png = m_home->path() + QStringLiteral("/x.png");
    const Run run = runHost({QStringLiteral("--screenshot"), png}, environment(),
                            prefix + QStringLiteral("/bin/vantor-preferences"));
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out.trimmed(), QStringLiteral("vantor-preferences: wrote %1").arg(png));
    QImage image(png);
    QVERIFY(image.width() >= 700 && image.height() >= 400);

    recorder.settle();
    QCOMPARE(recorder.names(),
             QStringList({QStringLiteral("com.quillfen.vantor.version"), QStringLiteral("vantorHelperEnableUpdates")}));
    QCOMPARE(recorder.userInfos().first().value(QStringLiteral("version")).toString(), QStringLiteral("1.0.0"));
    QCOMPARE(TestEnvironment::pythonPlist(defaultsFile()), m_allDefaults);
}

void TestHost::storedSettingsThroughStartUp_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QString>("after");
    QTest::addColumn<QString>("updateNotification");

    const QByteArray inactive = PropertyList::toXml(QVariantMap{{QStringLiteral("active"), false}});
    QTest::newRow("only active") << inactive << "{'active': False, 'checkUpdates': True, 'firstRun': False}"
                                 << "vantorHelperEnableUpdates";
    QTest::newRow("updates off") << PropertyList::toXml(
        QVariantMap{{QStringLiteral("checkUpdates"), false}, {QStringLiteral("firstRun"), false}})
                                 << "{'checkUpdates': False, 'firstRun': False}"
                                 << "vantorHelperDisableUpdates";
    QTest::newRow("empty dictionary") << PropertyList::toXml(QVariantMap()) << m_allDefaults
                                      << "vantorHelperEnableUpdates";
    QTest::newRow("truncated") << inactive.left(60) << m_allDefaults << "vantorHelperEnableUpdates";
}

void TestHost::storedSettingsThroughStartUp()
{
    QFETCH(QByteArray, contents);
    QFETCH(QString, after);
    QFETCH(QString, updateNotification);
    TestEnvironment::writeFile(defaultsFile(), contents);
    NotificationRecorder recorder;
    QCOMPARE(screenshot(environment()).exitCode, 0);
    QCOMPARE(TestEnvironment::pythonPlist(defaultsFile()), after);
    recorder.settle();
    QCOMPARE(recorder.names().value(1), updateNotification);
}

void TestHost::brokenPaneIsOneLineAndExitOne_data()
{
    QTest::addColumn<QString>("layout");
    QTest::newRow("missing") << "missing";
    QTest::newRow("no Info.plist") << "empty";
    QTest::newRow("Info.plist is garbage") << "garbage";
    QTest::newRow("library missing") << "nolib";
    QTest::newRow("library is not a pane") << "notpane";
}

void TestHost::brokenPaneIsOneLineAndExitOne()
{
    QFETCH(QString, layout);
    const QString pane = m_home->path() + QStringLiteral("/Broken.prefPane");
    const QString info = pane + QStringLiteral("/Contents/Info.plist");
    if (layout != QLatin1String("missing"))
        QDir().mkpath(pane + QStringLiteral("/Contents/Linux"));
    if (layout == QLatin1String("garbage"))
        TestEnvironment::writeFile(info, "<plist><dict><key>");
    if (layout == QLatin1String("nolib") || layout == QLatin1String("notpane"))
        QFile::copy(TestEnvironment::paneBundle() + QStringLiteral("/Contents/Info.plist"), info);
    if (layout == QLatin1String("notpane"))
        QFile::copy(QStringLiteral(VANTOR_COMMON_LIBRARY_FILE),
                    pane + QStringLiteral("/Contents/Linux/libVantorPref.so"));

    const Run run = runHost({QStringLiteral("--pane"), pane}, environment());
    QCOMPARE(run.exitCode, 1);
    const QStringList lines = run.err.split(u'\n', Qt::SkipEmptyParts).filter(QStringLiteral("vantor.host:"));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith(QStringLiteral("vantor.host: cannot load the pane %1: ").arg(pane)),
             qPrintable(lines.first()));
}

void TestHost::noPaneInstalledSaysSo()
{
    const Run run =
        runHost({QStringLiteral("--screenshot"), m_home->path() + QStringLiteral("/none.png")}, environment());
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.err.contains(QStringLiteral("no Vantor pane is installed")), qPrintable(run.err));
    QVERIFY(QFile::exists(m_home->path() + QStringLiteral("/none.png")));
    // Nothing of the pane ran.
    QVERIFY(!QFile::exists(defaultsFile()));
}

void TestHost::quitNotificationFromAnotherProcess()
{
    NotificationRecorder recorder;
    QProcess host;
    host.setProcessEnvironment(environment());
    host.start(TestEnvironment::hostExecutable(), {QStringLiteral("--pane"), TestEnvironment::paneBundle()});
    QVERIFY(recorder.waitFor(QStringLiteral("vantorHelperEnableUpdates"), 30000));
    recorder.settle(500); // the pane's subscriptions follow its last start-up post
    QCOMPARE(TestEnvironment::postWithGdbus(QStringLiteral("com.quillfen.vantor.quit")), 0);
    QVERIFY(host.waitForFinished(20000));
    QCOMPARE(host.exitStatus(), QProcess::NormalExit);
    QCOMPARE(host.exitCode(), 0);
}

void TestHost::secondStartLaunchesNoSecondHelper()
{
    const auto helpers = [] { return TestEnvironment::processesOnThisBus(TestEnvironment::helperExecutable()).keys(); };
    QCOMPARE(screenshot(environment()).exitCode, 0);
    QTRY_COMPARE(helpers().size(), 1);
    const QList<int> first = helpers();
    // Started by its clean path, holding nothing of the host's: a host run through a pipe
    // would otherwise wait for the helper to end.
    QCOMPARE(TestEnvironment::processesOnThisBus(TestEnvironment::helperExecutable()).first().first(),
             QFile::encodeName(TestEnvironment::helperExecutable()));
    for (int fd : {0, 1})
        QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/fd/%2").arg(first.first()).arg(fd)).symLinkTarget(),
                 QStringLiteral("/dev/null"));
    QCOMPARE(screenshot(environment()).exitCode, 0);
    QTest::qWait(500);
    QCOMPARE(helpers(), first);
}

void TestHost::faultsAreReportedNotFatal_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("expectedLine");
    QTest::newRow("no session bus") << "nobus"
                                    << "vantor.platform: no D-Bus session bus (";
    QTest::newRow("data folder cannot be made") << "blocked"
                                                << "vantor.common: Could not write preferences to file: (null)";
    QTest::newRow("plain file named Vantor")
        << "vantorfile"
        << "vantor.common: Could not write preferences to file: @/.local/share/Vantor/defaults.plist";
}

void TestHost::faultsAreReportedNotFatal()
{
    QFETCH(QString, fault);
    QFETCH(QString, expectedLine);
    expectedLine.replace(u'@', m_home->path());
    QProcessEnvironment env = environment();
    if (fault == QLatin1String("nobus"))
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent/bus"));
    if (fault == QLatin1String("blocked")) {
        TestEnvironment::writeFile(m_home->path() + QStringLiteral("/file"), "x");
        env.insert(QStringLiteral("XDG_DATA_HOME"), m_home->path() + QStringLiteral("/file/share"));
    }
    if (fault == QLatin1String("vantorfile"))
        TestEnvironment::writeFile(m_home->path() + QStringLiteral("/.local/share/Vantor"), "x");

    const Run run = screenshot(env);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.err.count(expectedLine), fault == QLatin1String("nobus") ? 1 : 3);
}

// Started by a program that has gone (as before a relaunch): its output is a pipe nobody reads.
void TestHost::survivesClosedOutput()
{
    QProcess shell;
    shell.setProcessEnvironment(environment());
    shell.start(QStringLiteral("bash"),
                {QStringLiteral("-c"), QStringLiteral("set -o pipefail; \"$0\" --screenshot \"$1\" 2>&1 | true"),
                 TestEnvironment::hostExecutable(), m_home->path() + QStringLiteral("/x.png")});
    QVERIFY(shell.waitForFinished(60000));
    QCOMPARE(shell.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestHost)
#include "tst_host.moc"
