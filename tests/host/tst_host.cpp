#include "TestEnvironment.h"

#include <QDir>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

// vantor-preferences as a user starts it: a real process on the test's session bus.
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

    void installedHostStartsItsPane()
    {
        // Installed for this user, where the host looks first.
        const QString prefix = m_home->path() + u"/.local"_s;
        QCOMPARE(QProcess::execute(u"cmake"_s,
                                   {u"--install"_s, qEnvironmentVariable("VANTOR_BUILD_DIR"), u"--prefix"_s, prefix}),
                 0);
        const Run run =
            TestEnvironment::run(prefix + u"/bin/vantor-preferences"_s, {u"--screenshot"_s, png()}, environment());
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out.trimmed(), u"vantor-preferences: wrote %1"_s.arg(png()));
        QImage image(png());
        QVERIFY(image.width() >= 700 && image.height() >= 400);

        // The pane ran, and its first run is done.
        QCOMPARE(TestEnvironment::pythonPlist(defaultsFile()),
                 u"{'active': True, 'checkUpdates': True, 'firstRun': False, "
                 "'folderAliases': [], 'runAtLogin': True, 'visible': True}"_s);
    }

    void brokenPaneIsOneLineAndExitOne_data()
    {
        QTest::addColumn<QString>("layout");
        for (const char *layout : {"missing", "empty", "garbage", "nolib", "notpane"})
            QTest::newRow(layout) << QString::fromLatin1(layout);
    }

    void brokenPaneIsOneLineAndExitOne()
    {
        QFETCH(QString, layout);
        const QString pane = m_home->path() + u"/Broken.prefPane"_s, info = pane + u"/Contents/Info.plist"_s;
        if (layout != "missing"_L1)
            QDir().mkpath(pane + u"/Contents/Linux"_s);
        if (layout == "garbage"_L1)
            TestEnvironment::writeFile(info, "<plist><dict><key>");
        if (layout == "nolib"_L1 || layout == "notpane"_L1)
            QFile::copy(TestEnvironment::paneBundle() + u"/Contents/Info.plist"_s, info);
        if (layout == "notpane"_L1)
            QFile::copy(QStringLiteral(VANTOR_COMMON_LIBRARY_FILE), pane + u"/Contents/Linux/libVantorPref.so"_s);

        const Run run = runHost({u"--pane"_s, pane}, environment());
        QCOMPARE(run.exitCode, 1);
        const QStringList lines = run.err.split(u'\n', Qt::SkipEmptyParts).filter(u"vantor.host:"_s);
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().startsWith(u"vantor.host: cannot load the pane %1: "_s.arg(pane)),
                 qPrintable(lines.first()));
    }

    void quitNotificationFromAnotherProcess()
    {
        QProcess host;
        host.setProcessEnvironment(environment());
        host.start(TestEnvironment::hostExecutable(), {u"--pane"_s, TestEnvironment::paneBundle()});
        QVERIFY(TestEnvironment::waitForObserver(u"com.quillfen.vantor.quit"_s));
        QCOMPARE(TestEnvironment::postWithGdbus(u"com.quillfen.vantor.quit"_s), 0);
        QVERIFY(host.waitForFinished(20000));
        QCOMPARE(host.exitStatus(), QProcess::NormalExit);
        QCOMPARE(host.exitCode(), 0);
    }

    void secondStartLaunchesNoSecondHelper()
    {
        const auto helpers = [] { return TestEnvironment::processesOnThisBus(TestEnvironment::helperExecutable()); };
        QCOMPARE(screenshot(environment()).exitCode, 0);
        QTRY_COMPARE(helpers().size(), 1);
        const QMap<int, QList<QByteArray>> first = helpers();
        // Started by its clean path, holding nothing of the host's: a host run through a pipe
        // would otherwise wait for the helper to end.
        QCOMPARE(first.first().first(), QFile::encodeName(TestEnvironment::helperExecutable()));
        for (int fd : {0, 1})
            QCOMPARE(QFileInfo(u"/proc/%1/fd/%2"_s.arg(first.firstKey()).arg(fd)).symLinkTarget(), u"/dev/null"_s);
        QCOMPARE(screenshot(environment()).exitCode, 0);
        QTest::qWait(500);
        QCOMPARE(helpers().keys(), first.keys());
    }

    // The window is still drawn, with one clear line for what is wrong.
    void faultsAreReportedNotFatal_data()
    {
        QTest::addColumn<QString>("expectedLine"); // the row's name is the fault
        QTest::addColumn<int>("times");
        QTest::newRow("no session bus") << "vantor.platform: no D-Bus session bus (" << 1;
        QTest::newRow("data folder cannot be made")
            << "vantor.common: Could not write preferences to file: (null)" << 3;
        QTest::newRow("no pane installed") << "no Vantor pane is installed" << 1;
    }

    void faultsAreReportedNotFatal()
    {
        const QLatin1StringView fault(QTest::currentDataTag());
        QFETCH(QString, expectedLine);
        QFETCH(int, times);
        QProcessEnvironment env = environment();
        if (fault == "no session bus"_L1)
            env.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, u"unix:path=/nonexistent/bus"_s);
        if (fault == "data folder cannot be made"_L1) {
            TestEnvironment::writeFile(m_home->path() + u"/file"_s, "x");
            env.insert(u"XDG_DATA_HOME"_s, m_home->path() + u"/file/share"_s);
        }
        const Run run = fault == "no pane installed"_L1 ? runHost({u"--screenshot"_s, png()}, env) : screenshot(env);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.err.count(expectedLine), times);
        QVERIFY(QFile::exists(png()));
    }

    // Started by a program that has gone (as before a relaunch): its output is a pipe nobody reads.
    void survivesClosedOutput()
    {
        const QString command = u"set -o pipefail; \"$0\" --screenshot \"$1\" 2>&1 | true"_s;
        const QStringList arguments{u"-c"_s, command, TestEnvironment::hostExecutable(), png()};
        QCOMPARE(TestEnvironment::run(u"bash"_s, arguments, environment()).exitCode, 0);
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

    using Run = TestEnvironment::Run;
    Run runHost(const QStringList &args, const QProcessEnvironment &env) const
    {
        return TestEnvironment::run(TestEnvironment::hostExecutable(), args, env);
    }
    QString png() const { return m_home->path() + u"/x.png"_s; }
    Run screenshot(const QProcessEnvironment &env)
    {
        return runHost({u"--pane"_s, TestEnvironment::paneBundle(), u"--screenshot"_s, png()}, env);
    }
    QString defaultsFile() const { return m_home->path() + u"/.local/share/Vantor/defaults.plist"_s; }
    std::unique_ptr<QTemporaryDir> m_home;
};

QTEST_GUILESS_MAIN(TestHost)
#include "tst_host.moc"
