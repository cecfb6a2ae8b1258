// vantorctl against the real helper on the test's own session bus: what it refuses (and
// that a refused request sends nothing), and a real folder on btrfs compressed through it,
// by root and by an ordinary user in a session of their own.
#include "LoopMount.h"
#include "NotificationRecorder.h"
#include "TestEnvironment.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

struct Run {
    int exitCode = -1;
    QString out;
    QString err;
};

// Arguments may carry printf escapes ("\\351"): a path that is not UTF-8 cannot travel in a QString.
Run run(const QStringList &arguments, const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    QProcess ctl;
    ctl.setProcessEnvironment(env);
    ctl.start(QStringLiteral("bash"),
              QStringList{QStringLiteral("-c"),
                          QStringLiteral("a=(); for x; do a+=(\"$(printf %b \"$x\")\"); done; exec \"$0\" \"${a[@]}\""),
                          QStringLiteral(VANTORCTL), QStringLiteral("--pane"), TestEnvironment::paneBundle()}
                  + arguments);
    ctl.waitForFinished(120000);
    return {ctl.exitStatus() == QProcess::NormalExit ? ctl.exitCode() : -1, QString::fromUtf8(ctl.readAllStandardOutput()),
            QString::fromUtf8(ctl.readAllStandardError())};
}

bool helperRunning()
{
    return QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName());
}

} // namespace

class TestVantorCtl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void cleanupTestCase();
    void refusals_data();
    void refusals();
    void compressesThroughTheCommandLine_data();
    void compressesThroughTheCommandLine();

private:
    void startHelper();
    void stopHelper();
    QByteArray undecodableFolder() const { return QFile::encodeName(m_env.home()) + "/caf\xe9"; }

    TestEnvironment m_env;
    std::unique_ptr<QProcess> m_helper;
};

void TestVantorCtl::initTestCase()
{
    QDir().mkpath(m_env.productFolder());
    QDir().mkpath(m_env.home() + QStringLiteral("/Documents"));
    TestEnvironment::writeFile(m_env.home() + QStringLiteral("/notes.txt"), "text");
    QCOMPARE(::mkdir(undecodableFolder().constData(), 0700), 0);
}

void TestVantorCtl::cleanupTestCase()
{
    // QDir cannot remove what it cannot name.
    ::rmdir(undecodableFolder().constData());
}

void TestVantorCtl::cleanup()
{
    stopHelper();
    QFile::remove(m_env.productFolder() + QStringLiteral("/history.db"));
}

void TestVantorCtl::startHelper()
{
    if (helperRunning())
        return;
    m_helper = std::make_unique<QProcess>();
    m_helper->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_helper->start(TestEnvironment::helperExecutable(), {});
    QVERIFY(m_helper->waitForStarted());
    QTRY_VERIFY(helperRunning());
}

void TestVantorCtl::stopHelper()
{
    if (!m_helper || m_helper->state() == QProcess::NotRunning)
        return;
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
    if (!m_helper->waitForFinished(15000))
        m_helper->kill();
    m_helper->waitForFinished();
}

void TestVantorCtl::refusals_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("setting"); // helper | no helper | no bus | damaged store
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QStringList>("sent"); // the foldersToAdd that reached the bus

    const QString home = m_env.home();
    const QString docs = home + u"/Documents"_s;
    const QString file = home + u"/notes.txt"_s;
    const QStringList none;
    QTest::newRow("a file instead of a folder") << QStringList{u"add"_s, file} << u"helper"_s << 1
                                                << file + u": not a folder"_s << none;
    QTest::newRow("a missing path") << QStringList{u"add"_s, home + u"/gone"_s} << u"helper"_s << 1
                                    << home + u"/gone: no such folder"_s << none;
    QTest::newRow("a path not UTF-8")
        << QStringList{u"add"_s, home + u"/caf\\351"_s} << u"helper"_s << 1
        << u"Vantor cannot keep the folder %1/caf%E9 compressed: its path is not valid UTF-8"_s.arg(home) << none;
    QTest::newRow("a folder and a file: the folder is sent")
        << QStringList{u"add"_s, file, docs + u"/./"_s} << u"helper"_s << 1 << file + u": not a folder"_s
        << QStringList{docs};
    QTest::newRow("no helper") << QStringList{u"add"_s, docs} << u"no helper"_s << 1
                               << u"the Vantor helper is not running, so nothing was sent; start it with "
                                  "\"vantorctl on\" and try again"_s
                               << none;
    QTest::newRow("no bus: add") << QStringList{u"add"_s, docs} << u"no bus"_s << 1
                                 << u"no session bus, so the helper cannot be asked: nothing was sent"_s << none;
    QTest::newRow("no bus: status") << QStringList{u"status"_s} << u"no bus"_s << 1
                                    << u"no session bus: cannot tell whether the helper is running"_s << none;
    QTest::newRow("remove a folder not listed") << QStringList{u"remove"_s, docs} << u"helper"_s << 1
                                                << docs + u": not in the list of folders"_s << none;
    for (const QStringList &arguments : {QStringList{u"list"_s}, QStringList{u"status"_s, u"--json"_s},
                                         QStringList{u"remove"_s, docs}}) {
        QTest::addRow("damaged history.db: %s", qPrintable(arguments.first()))
            << arguments << u"damaged store"_s << 1
            << u"Vantor Database Error: the history store %1/history.db is damaged"_s.arg(m_env.productFolder()) << none;
    }
    QTest::newRow("usage: no command") << QStringList() << u"helper"_s << 2 << u"no command given"_s << none;
    QTest::newRow("usage: add without a path") << QStringList{u"add"_s} << u"helper"_s << 2
                                               << u"add needs at least one PATH"_s << none;
    QTest::newRow("usage: list --xml") << QStringList{u"list"_s, u"--xml"_s} << u"helper"_s << 2
                                       << u"list takes only --json"_s << none;
}

void TestVantorCtl::refusals()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, setting);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    QFETCH(QStringList, sent);

    const QString store = m_env.productFolder() + QStringLiteral("/history.db");
    const QByteArray damaged = "not a database, but the user's file all the same\n";
    if (setting == QLatin1String("damaged store"))
        TestEnvironment::writeFile(store, damaged);
    // The helper replaces a damaged store when it starts, so it stays away from those rows.
    if (setting == QLatin1String("helper"))
        startHelper();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (setting == QLatin1String("no bus"))
        env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    NotificationRecorder recorder;

    const Run result = run(arguments, env);
    QVERIFY2(result.err.contains(QStringLiteral("vantorctl: ") + message), qPrintable(result.err));
    QCOMPARE(result.exitCode, exitCode);
    recorder.settle();
    QStringList reached;
    for (const QVariantMap &userInfo : recorder.userInfos())
        reached += userInfo.value(QLatin1String(Notifications::FoldersToAddKey)).toStringList();
    QCOMPARE(reached, sent);
    QCOMPARE(recorder.count(QLatin1String(Notifications::Folders)), sent.isEmpty() ? 0 : 1);
    // A damaged store is reported, never replaced: it may still be worth saving.
    if (setting == QLatin1String("damaged store"))
        QCOMPARE(TestEnvironment::readFile(store), damaged);
}

void TestVantorCtl::compressesThroughTheCommandLine_data()
{
    QTest::addColumn<bool>("ordinaryUser");
    QTest::newRow("root") << false;
    QTest::newRow("ordinary user") << true;
}

void TestVantorCtl::compressesThroughTheCommandLine()
{
    QFETCH(bool, ordinaryUser);
    // Outside the test's own private folder, and open for others to enter.
    QTemporaryDir dir(QStringLiteral("/tmp/tst_vantorctl-XXXXXX"));
    QVERIFY(QFile::setPermissions(dir.path(), QFileDevice::Permissions(0x7755)));
    LoopMount btrfs(dir.path(), QStringLiteral("btrfs"), 256);
    if (!btrfs.mount())
        QSKIP(qPrintable(QStringLiteral("no btrfs image can be mounted here: ") + btrfs.reason()));
    const QString home = dir.path() + QStringLiteral("/home");
    const QString folder = btrfs.mountPoint() + QStringLiteral("/Documents");
    QVERIFY(QDir().mkpath(home + QStringLiteral("/.local/share")) && QDir().mkpath(folder));
    QByteArray text;
    for (int i = 0; text.size() < (4 << 20); ++i)
        text += "line " + QByteArray::number(i % 977) + " of a report that compresses well\n";
    TestEnvironment::writeFile(folder + QStringLiteral("/report.txt"), text);
    QProcess::execute(QStringLiteral("sync"), {});

    QStringList command{QStringLiteral("dbus-run-session"), QStringLiteral("--"), QStringLiteral(VANTOR_CTL_SESSION),
                        QStringLiteral(VANTORCTL), TestEnvironment::paneBundle(), folder};
    if (ordinaryUser) {
        QCOMPARE(QProcess::execute(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("65534:65534"), home, folder}), 0);
        command = QStringList{QStringLiteral("setpriv"), QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                              QStringLiteral("--clear-groups")} + command;
    }
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR", "TMPDIR",
                             "DBUS_SESSION_BUS_ADDRESS"})
        env.remove(QLatin1String(name));
    env.insert(QStringLiteral("HOME"), home);
    QProcess session;
    session.setProcessEnvironment(env);
    session.start(command.takeFirst(), command);
    QVERIFY(session.waitForFinished(180000));
    const QByteArray out = session.readAllStandardOutput();
    QVERIFY2(session.exitCode() == 0, session.readAllStandardError().constData());

    const QJsonObject list = QJsonDocument::fromJson(out).object();
    const QJsonArray folders = list.value(QStringLiteral("folders")).toArray();
    QCOMPARE(folders.size(), 1);
    const QJsonObject entry = folders.first().toObject();
    QCOMPARE(entry.value(QStringLiteral("path")).toString(), folder);
    QCOMPARE(entry.value(QStringLiteral("status")).toInteger(), 100);
    QVERIFY(entry.value(QStringLiteral("exists")).toBool());
    // The figure shown is the store's, and the disk agrees that space was saved.
    const qint64 savings = entry.value(QStringLiteral("savings")).toInteger();
    QCOMPARE(list.value(QStringLiteral("totalSavings")).toInteger(), savings);
    QCOMPARE(TestEnvironment::sqlite(home + QStringLiteral("/.local/share/Vantor/history.db"),
                                     QStringLiteral("SELECT ZSAVINGS FROM ZHISTORY")),
             QString::number(savings));
    QProcess compsize;
    compsize.start(QStringLiteral("compsize"), {QStringLiteral("-b"), folder});
    QVERIFY(compsize.waitForFinished());
    // "TOTAL  3%  <disk usage>  <uncompressed>  <referenced>": what the disk holds less than the data.
    const QString report = QString::fromUtf8(compsize.readAllStandardOutput());
    const QStringList total = report.section(u"TOTAL"_s, 1).split(u' ', Qt::SkipEmptyParts);
    QVERIFY2(total.size() >= 3 && report.contains(u"zstd"_s), qPrintable(report));
    QCOMPARE(savings, total.at(2).toLongLong() - total.at(1).toLongLong());
}

QTEST_GUILESS_MAIN(TestVantorCtl)
#include "tst_vantorctl.moc"
