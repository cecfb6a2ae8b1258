// The relaunch tool on its own, and the host coming back after an update.

#include "platform/DistributedNotificationCenter.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "NotificationRecorder.h"
#include "TestEnvironment.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <unistd.h>
#include <QUuid>

#include <climits>
#include <csignal>

namespace {

QString relaunchTool()
{
    return HelperIdentity::relaunchToolPath(HelperIdentity::applicationPathInPane(TestEnvironment::paneBundle()));
}

QList<int> processesWithToken(const QByteArray &token, const QString &executable = {})
{
    return TestEnvironment::processesWithEnvironment(token, executable).keys();
}

} // namespace

class TestRelaunch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void badArguments_data();
    void badArguments();
    void startsAgainAsItWas();
    void survivesClosedOutput();
    void hostComesBackAfterUpdate_data();
    void hostComesBackAfterUpdate();

private:
    TestEnvironment m_env;
};

void TestRelaunch::badArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("none") << QStringList{} << 2;
    QTest::newRow("no pid") << QStringList{QStringLiteral("/bin/true")} << 2;
    QTest::newRow("pid not a number") << QStringList{QStringLiteral("/bin/true"), QStringLiteral("12x")} << 2;
    QTest::newRow("pid negative") << QStringList{QStringLiteral("/bin/true"), QStringLiteral("-5")} << 2;
    QTest::newRow("application missing") << QStringList{m_env.root() + QStringLiteral("/nothing"), QStringLiteral("1")} << 1;
}

void TestRelaunch::badArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QProcess tool;
    tool.start(relaunchTool(), arguments);
    QVERIFY(tool.waitForFinished(5000));
    QCOMPARE(tool.exitCode(), exitCode);
    QVERIFY(!tool.readAllStandardError().trimmed().isEmpty());
}

void TestRelaunch::startsAgainAsItWas()
{
    // A stand-in application: the first run waits a moment; the second records how it was started.
    const QString marker = m_env.root() + QStringLiteral("/first-run");
    const QString record = m_env.root() + QStringLiteral("/second-run");
    const QString script = m_env.root() + QStringLiteral("/app.sh");
    TestEnvironment::writeFile(script, "if [ -e \"$MARKER\" ]; then echo \"$* $FLAVOUR $(pwd)\" > \"$RECORD\"; exit 0; fi\n"
                                       "touch \"$MARKER\"; sleep 0.5\n");
    QProcess app;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("MARKER"), marker);
    env.insert(QStringLiteral("RECORD"), record);
    env.insert(QStringLiteral("FLAVOUR"), QStringLiteral("mint"));
    app.setProcessEnvironment(env);
    app.setWorkingDirectory(m_env.home());
    app.start(QStringLiteral("/bin/sh"), {script, QStringLiteral("one"), QStringLiteral("two words")});
    QVERIFY(app.waitForStarted());
    QTRY_VERIFY(QFileInfo::exists(marker));

    QProcess tool;
    tool.start(relaunchTool(), {QStringLiteral("/bin/sh"), QString::number(app.processId())});
    QVERIFY(tool.waitForFinished(10000));
    QCOMPARE(tool.exitCode(), 0);
    QVERIFY(app.state() == QProcess::NotRunning || app.waitForFinished(1000));
    QTRY_COMPARE(TestEnvironment::readFile(record), QByteArray("one two words mint " + QFile::encodeName(m_env.home()) + '\n'));
}

// The ended process's output was a pipe whose reader has gone too; the application started
// again writes to its output and must live on.
void TestRelaunch::survivesClosedOutput()
{
    const QString record = m_env.root() + QStringLiteral("/after-output");
    const QString script = m_env.root() + QStringLiteral("/talker.sh");
    TestEnvironment::writeFile(script, "#!/bin/sh\nsleep 0.5\necho one line >&2\necho out\necho alive > '"
                                           + QFile::encodeName(record) + "'\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    {
        QProcess tool;
        // A process id that has already ended: the application starts at once.
        tool.start(relaunchTool(), {script, QStringLiteral("%1").arg(INT_MAX)});
        QVERIFY(tool.waitForFinished(5000));
        QCOMPARE(tool.exitCode(), 0);
    } // the tool's pipes are closed here, before the application writes
    QTRY_COMPARE(TestEnvironment::readFile(record), QByteArray("alive\n"));
}

void TestRelaunch::hostComesBackAfterUpdate_data()
{
    QTest::addColumn<bool>("sharedTmp");
    QTest::newRow("planted in $TMPDIR") << false;
    QTest::newRow("planted in /tmp by another user") << true;
}

void TestRelaunch::hostComesBackAfterUpdate()
{
    // No runtime folder: the private temporary folder is then made under $TMPDIR (or /tmp).
    // A file planted in that shared folder itself under the tool's name must never run.
    QFETCH(bool, sharedTmp);
    const QString tmpBase = sharedTmp ? QStringLiteral("/tmp") : m_env.root() + QStringLiteral("/tmp");
    const QString planted = tmpBase + QStringLiteral("/relaunch");
    if (sharedTmp && QFileInfo::exists(planted))
        QSKIP("/tmp/relaunch already exists on this machine");
    const QString plantedRan = m_env.root() + QStringLiteral("/planted-ran");
    TestEnvironment::writeFile(planted, "#!/bin/sh\ntouch '" + QFile::encodeName(plantedRan) + "'\n");
    QFile::setPermissions(planted, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther
                                       | QFile::ExeOther | QFile::WriteOther);
    if (sharedTmp && ::geteuid() == 0)
        QVERIFY(::chown(QFile::encodeName(planted).constData(), 65534, 65534) == 0); // another user's
    auto removePlanted = qScopeGuard([&] {
        if (sharedTmp)
            QFile::remove(planted);
    });
    const QStringList copiesBefore = QDir(tmpBase).entryList({QStringLiteral("vantor-*")}, QDir::Dirs);

    const QByteArray token = "VANTOR_TEST_TOKEN=" + QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    if (sharedTmp)
        env.remove(QStringLiteral("TMPDIR"));
    env.insert(QString::fromLatin1(token.split('=').first()), QString::fromLatin1(token.split('=').last()));
    NotificationRecorder recorder;
    QProcess host;
    host.setProcessEnvironment(env);
    host.start(TestEnvironment::hostExecutable(), {QStringLiteral("--pane"), TestEnvironment::paneBundle()});
    QVERIFY(host.waitForStarted());
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    QTRY_VERIFY_WITH_TIMEOUT(bus->isServiceRegistered(HelperIdentity::busName()).value(), 10000);
    // The host subscribes right after its last start-up post.
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperEnableUpdates), 20000));
    recorder.settle(500);

    auto *center = DistributedNotificationCenter::defaultCenter();
    center->postNotificationName(QLatin1String(Notifications::RestartingAfterUpdate));
    center->postNotificationName(QLatin1String(Notifications::Quit));
    QVERIFY(host.waitForFinished(10000));

    QList<int> again;
    QTRY_VERIFY_WITH_TIMEOUT(!(again = processesWithToken(token, TestEnvironment::hostExecutable())).isEmpty(), 30000);
    QCOMPARE(again.size(), 1);
    QVERIFY(again.first() != int(host.processId()));
    QVERIFY(!QFileInfo::exists(plantedRan));
    QStringList copies = QDir(tmpBase).entryList({QStringLiteral("vantor-*")}, QDir::Dirs);
    for (const QString &old : copiesBefore)
        copies.removeAll(old);
    QCOMPARE(copies.size(), 1);
    QVERIFY(QFileInfo(tmpBase + u'/' + copies.first() + QStringLiteral("/relaunch")).isExecutable());
    if (sharedTmp)
        QDir(tmpBase + u'/' + copies.first()).removeRecursively();

    // The new host is nobody's child here: end it, and the helper, by hand. The new host may
    // still be starting and launch a helper meanwhile, so end whatever is there until none is.
    auto endAll = [&] {
        const QList<int> pids = processesWithToken(token);
        for (int pid : pids)
            ::kill(pid, SIGTERM);
        return pids.isEmpty();
    };
    QTRY_VERIFY_WITH_TIMEOUT(endAll(), 10000);
    center->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
    QTRY_VERIFY(!bus->isServiceRegistered(HelperIdentity::busName()).value());
}

QTEST_MAIN(TestRelaunch)
#include "tst_relaunch.moc"
