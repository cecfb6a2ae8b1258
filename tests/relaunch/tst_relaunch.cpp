// The relaunch tool on its own, and the host coming back after an update.

#include "platform/DistributedNotificationCenter.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <csignal>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QString relaunchTool()
{
    return HelperIdentity::relaunchToolPath(HelperIdentity::applicationPathInPane(TestEnvironment::paneBundle()));
}

} // namespace

class TestRelaunch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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
        // A stand-in application: the first run waits a moment; the second writes to its output,
        // a pipe whose reader (the tool's starter) has gone by then, and records how it was started.
        const QString marker = m_env.root() + u"/first-run"_s, record = m_env.root() + u"/second-run"_s;
        const QString script = m_env.root() + u"/app.sh"_s;
        TestEnvironment::writeFile(script,
                                   "if [ -e \"$MARKER\" ]; then sleep 0.5; echo out; echo err >&2\n"
                                   "  echo \"$* $FLAVOUR $(pwd)\" > \"$RECORD\"; exit 0; fi\n"
                                   "touch \"$MARKER\"; sleep 0.5\n");
        QProcess app;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"MARKER"_s, marker);
        env.insert(u"RECORD"_s, record);
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
        // No runtime folder: the private temporary folder is then made under $TMPDIR (or /tmp).
        // A file planted in that shared folder itself under the tool's name must never run.
        QFETCH(bool, sharedTmp);
        const QString tmpBase = sharedTmp ? u"/tmp"_s : m_env.root() + u"/tmp"_s;
        const QString planted = tmpBase + u"/relaunch"_s, plantedRan = m_env.root() + u"/planted-ran"_s;
        if (sharedTmp && QFileInfo::exists(planted))
            QSKIP("/tmp/relaunch already exists on this machine");
        TestEnvironment::writeFile(planted, "#!/bin/sh\ntouch '" + QFile::encodeName(plantedRan) + "'\n");
        QFile::setPermissions(planted, QFile::Permissions(0x7777));
        if (sharedTmp && ::geteuid() == 0)
            QVERIFY(::chown(QFile::encodeName(planted).constData(), 65534, 65534) == 0); // another user's
        auto removePlanted = qScopeGuard([&] {
            if (sharedTmp)
                QFile::remove(planted);
        });

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
        QStringList copies = QDir(tmpBase).entryList({u"vantor-*"_s}, QDir::Dirs);
        for (const QString &old : copiesBefore)
            copies.removeAll(old);

        // Back as it was started, though it had gone before the tool could look at it.
        QMap<int, QList<QByteArray>> again;
        QTRY_VERIFY_WITH_TIMEOUT(
            !(again = TestEnvironment::processesWithEnvironment(token, TestEnvironment::hostExecutable())).isEmpty(),
            30000);
        QCOMPARE(again.size(), 1);
        QVERIFY(again.firstKey() != int(host.processId()));
        QCOMPARE(again.first().mid(1), (QList<QByteArray>{"--pane", QFile::encodeName(TestEnvironment::paneBundle())}));
        QVERIFY(!QFileInfo::exists(plantedRan));
        QCOMPARE(copies.size(), 1);
        QVERIFY(QFileInfo(tmpBase + u'/' + copies.first() + u"/relaunch"_s).isExecutable());
        if (sharedTmp)
            QDir(tmpBase + u'/' + copies.first()).removeRecursively();

        // The new host is nobody's child here: end it, and the helper, by hand. The new host may
        // still be starting and launch a helper meanwhile, so end whatever is there until none is.
        auto endAll = [&] {
            const QList<int> pids = TestEnvironment::processesWithEnvironment(token).keys();
            for (int pid : pids)
                ::kill(pid, SIGTERM);
            return pids.isEmpty();
        };
        QTRY_VERIFY_WITH_TIMEOUT(endAll(), 30000);
        center->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
        QTRY_VERIFY_WITH_TIMEOUT(!TestEnvironment::helperOwnsItsName(), 30000);
    }

private:
    TestEnvironment m_env;
};

QTEST_MAIN(TestRelaunch)
#include "tst_relaunch.moc"
