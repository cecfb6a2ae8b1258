// An installed copy uninstalled from the real host: the host quits on the restart sheet's
// button and comes back without the pane.

#include "platform/DistributedNotificationCenter.h"
#include "common/HelperIdentity.h"
#include "NotificationRecorder.h"
#include "common/Notifications.h"
#include "platform/PreferencesDomain.h"
#include "TestEnvironment.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTest>
#include <QUuid>

#include <csignal>

namespace {

// Processes whose environment holds token and that run executable; with their arguments.
QMap<int, QList<QByteArray>> processes(const QByteArray &token, const QString &executable)
{
    return TestEnvironment::processesWithEnvironment(token, executable);
}

} // namespace

class TestUninstallHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void uninstallThenRestart();

private:
    TestEnvironment m_env;
};

void TestUninstallHost::uninstallThenRestart()
{
    // Installed for this user, where the host looks first.
    const QString prefix = m_env.home() + QStringLiteral("/.local");
    QProcess install;
    install.start(QStringLiteral("cmake"), {QStringLiteral("--install"), qEnvironmentVariable("VANTOR_BUILD_DIR"),
                                            QStringLiteral("--prefix"), prefix});
    QVERIFY(install.waitForFinished(120000));
    QVERIFY2(install.exitCode() == 0, install.readAllStandardError().constData());
    const QString host = prefix + QStringLiteral("/bin/vantor-preferences");
    const QString bundle = prefix + QStringLiteral("/lib/vantor/Vantor.prefPane");
    const QString helper = HelperIdentity::applicationPathInPane(bundle);
    QVERIFY(QFileInfo(host).isExecutable());

    // Another application's login item, and the helper's.
    PreferencesDomain loginWindow(QStringLiteral("loginwindow"));
    const QVariantMap other{{QStringLiteral("Path"), QStringLiteral("/opt/Other.app")}, {QStringLiteral("Hide"), false}};
    loginWindow.setValue(QStringLiteral("AutoLaunchedApplicationDictionary"),
                         QVariantList{other, QVariantMap{{QStringLiteral("Path"), helper}, {QStringLiteral("Hide"), false}}});
    QVERIFY(loginWindow.synchronize());

    const QByteArray token = "VANTOR_TEST_TOKEN=" + QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QString::fromLatin1(token.split('=').first()), QString::fromLatin1(token.split('=').last()));
    env.insert(QStringLiteral("QT_PLUGIN_PATH"), qEnvironmentVariable("VANTOR_BUILD_DIR") + QStringLiteral("/tests/plugins"));
    env.insert(QStringLiteral("QT_QPA_GENERIC_PLUGINS"), QStringLiteral("vantortestdriver"));
    const QString out = m_env.root() + QStringLiteral("/host.out");
    const QString err = m_env.root() + QStringLiteral("/host.err");
    auto said = [](const QString &file, const char *line) { return TestEnvironment::readFile(file).contains(line); };

    NotificationRecorder recorder;
    QProcess first;
    first.setProcessEnvironment(env);
    first.setStandardOutputFile(out);
    first.setStandardErrorFile(err);
    first.start(host, {});
    QVERIFY(first.waitForStarted());
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperEnableUpdates), 30000)); // start-up is done
    QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(
                                 HelperIdentity::busName()).value(), 10000);

    first.write("click uninstallButton\n");
    QTRY_VERIFY(said(out, "driver: clicked uninstallButton"));
    first.write("visible uninstallSheet\n");
    QTRY_VERIFY(said(out, "driver: visible uninstallSheet 1"));
    first.write("click confirmUninstallButton\n");
    QTRY_VERIFY(said(out, "driver: clicked confirmUninstallButton"));
    first.write("visible restartSheet\n");
    QTRY_VERIFY(said(out, "driver: visible restartSheet 1"));

    // The helper's login item is gone, the other stays; the helper is told to quit and does.
    QCOMPARE(loginWindow.copyValue(QStringLiteral("AutoLaunchedApplicationDictionary")).toList(), QVariantList{other});
    QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldQuit)));
    QTRY_VERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName()).value());
    QVERIFY(!QFileInfo::exists(bundle));

    // The relaunch tool waits for this host.
    const QString tool = QFileInfo(qEnvironmentVariable("XDG_RUNTIME_DIR") + QStringLiteral("/vantor/relaunch")).canonicalFilePath();
    const QMap<int, QList<QByteArray>> tools = processes(token, tool);
    QCOMPARE(tools.size(), 1);
    QCOMPARE(tools.first().mid(1), (QList<QByteArray>{QFile::encodeName(host), QByteArray::number(first.processId())}));

    recorder.clear();
    first.write("click restartButton\n");
    QVERIFY(first.waitForFinished(10000));
    QCOMPARE(first.exitCode(), 0);

    // Back, without the pane.
    QMap<int, QList<QByteArray>> again;
    QTRY_VERIFY_WITH_TIMEOUT(!(again = processes(token, QFileInfo(host).canonicalFilePath())).isEmpty(), 10000);
    QCOMPARE(again.size(), 1);
    // Started detached, its output goes nowhere; a host with the pane would announce the
    // pane's version as it starts.
    QTest::qWait(1500);
    QVERIFY(processes(token, QFileInfo(host).canonicalFilePath()).contains(again.firstKey()));
    QVERIFY(!recorder.names().contains(QLatin1String(Notifications::Version)));
    QVERIFY(processes(token, tool).isEmpty());

    // Nobody's child here: ended by hand.
    ::kill(again.firstKey(), SIGTERM);
    QTRY_VERIFY_WITH_TIMEOUT(processes(token, QFileInfo(host).canonicalFilePath()).isEmpty(), 10000);
}

QTEST_MAIN(TestUninstallHost)
#include "tst_uninstallhost.moc"
