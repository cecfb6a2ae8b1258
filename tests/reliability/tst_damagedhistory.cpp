// Damaged "history.db" files through the whole start-up of the host with the pane. Each is
// either passed by the integrity check and read as far as it reads, or shown the
// "Vantor Database Error" alert and replaced by an empty store, or (where no store can be
// made) followed by the two presented errors. The host never crashes.
#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kCorruptAlert = QStringLiteral(
    "vantor.host: alert: Vantor Database Error: Vantor database is corrupt, and recovery attempts did not "
    "succeed.  A new empty database will be created now. Please note you will lose your configured folders and "
    "savings history.");
constexpr qint64 kPage = 4096;

QString sqlite(const QString &path, const QString &sql)
{
    return TestEnvironment::sqlite(path, sql);
}

ino_t inodeOf(const QString &path)
{
    struct stat st { };
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_ino : 0;
}

void overwrite(const QString &path, qint64 offset, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.seek(offset));
    QCOMPARE(file.write(bytes), bytes.size());
}

} // namespace

class TestDamagedHistory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void damagedStore_data();
    void damagedStore();

private:
    struct Run {
        int exitCode = -1;
        QStringList alerts;
        QString err;
    };
    Run runHost(const QString &home, bool unprivileged);

    QTemporaryDir m_dir;
    QString m_sound; // a store of 2,000 records, made by the pane and filled as the helper would
};

TestDamagedHistory::Run TestDamagedHistory::runHost(const QString &home, bool unprivileged)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), home);
    for (const char *var : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR", "TMPDIR"})
        env.remove(QLatin1String(var));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    QStringList args{QStringLiteral("--pane"), TestEnvironment::paneBundle(), QStringLiteral("--screenshot"),
                     home + QStringLiteral("/x.png")};
    QString program = TestEnvironment::hostExecutable();
    if (unprivileged) {
        // Nobody's own session bus is not ours; the host runs without one.
        env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        args = QStringList{QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                           QStringLiteral("--clear-groups"), program}
            + args;
        program = QStringLiteral("setpriv");
    }
    QProcess host;
    host.setProcessEnvironment(env);
    host.start(program, args);
    if (!host.waitForFinished(120000))
        host.kill();
    Run run;
    run.exitCode = host.exitStatus() == QProcess::NormalExit ? host.exitCode() : -1;
    run.err = QString::fromUtf8(host.readAllStandardError());
    run.alerts = run.err.split(u'\n').filter(QStringLiteral("vantor.host: alert: "));
    return run;
}

void TestDamagedHistory::initTestCase()
{
    QVERIFY(m_dir.isValid());
    // Another user must reach the homes made inside.
    QVERIFY(QFile::setPermissions(m_dir.path(), QFileDevice::Permissions(0x7755)));
    const QString home = m_dir.path() + QStringLiteral("/template");
    QCOMPARE(runHost(home, false).exitCode, 0);
    m_sound = home + QStringLiteral("/.local/share/Vantor/history.db");
    QVERIFY(QFileInfo::exists(m_sound));
    sqlite(
        m_sound,
        QStringLiteral(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<2000) "
            "INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) "
            "SELECT printf('/home/u/folder %05d with a long name to fill the pages', i), i % 101, i * 1000, i % 2 FROM n;"
            "PRAGMA wal_checkpoint(TRUNCATE);"));
    QCOMPARE(sqlite(m_sound, QStringLiteral("SELECT count(*) FROM ZHISTORY")), QStringLiteral("2000"));
    QVERIFY(QFileInfo(m_sound).size() > 40 * kPage);
}

void TestDamagedHistory::damagedStore_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QString>("outcome"); // kept | replaced | unattachable
    QTest::newRow("text") << "text"
                          << "replaced";
    QTest::newRow("empty") << "empty"
                           << "kept";
    QTest::newRow("truncated header") << "header"
                                      << "replaced";
    // The header's page count no longer matches the file: the schema cannot be read.
    QTest::newRow("truncated to half") << "half"
                                       << "replaced";
    QTest::newRow("zeroed first page") << "zero-first"
                                       << "replaced";
    QTest::newRow("zeroed pages") << "zero-inner"
                                  << "kept";
    QTest::newRow("damaged schema") << "schema"
                                    << "replaced";
    QTest::newRow("damaged data pages") << "data"
                                        << "kept";
    QTest::newRow("directory in its place") << "directory"
                                            << "unattachable";
    QTest::newRow("no permission to read") << "unreadable"
                                           << "replaced";
}

void TestDamagedHistory::damagedStore()
{
    QFETCH(QString, damage);
    QFETCH(QString, outcome);
    const bool unprivileged = damage == QLatin1String("unreadable");
    if (unprivileged && ::geteuid() != 0)
        QSKIP("the unreadable store is tested as another user, which needs root");

    const QString home = m_dir.path() + QLatin1Char('/') + damage;
    const QString folder = home + QStringLiteral("/.local/share/Vantor");
    const QString path = folder + QStringLiteral("/history.db");
    QVERIFY(QDir().mkpath(folder));
    if (damage == QLatin1String("text")) {
        TestEnvironment::writeFile(path, "Music 1000\nDocuments 2048\n");
    } else if (damage == QLatin1String("empty")) {
        TestEnvironment::writeFile(path, {});
    } else if (damage == QLatin1String("directory")) {
        QVERIFY(QDir().mkpath(path));
    } else {
        QVERIFY(QFile::copy(m_sound, path));
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
        if (damage == QLatin1String("header") || damage == QLatin1String("half"))
            QVERIFY(QFile::resize(path, damage == QLatin1String("header") ? 60 : QFileInfo(path).size() / 2));
        if (damage == QLatin1String("zero-first") || damage == QLatin1String("zero-inner"))
            overwrite(path, damage == QLatin1String("zero-first") ? 0 : 5 * kPage, QByteArray(4 * kPage, '\0'));
        if (damage == QLatin1String("data"))
            overwrite(path, 10 * kPage, QByteArray(3 * kPage, '\xA5'));
        if (damage == QLatin1String("schema")) {
            const QByteArray bytes = TestEnvironment::readFile(path);
            const qsizetype at = bytes.indexOf("CREATE TABLE ZHISTORY");
            QVERIFY(at > 0 && at < kPage);
            overwrite(path, at, "CREATE TABXE ZH(STORY");
        }
        if (damage == QLatin1String("unreadable")) {
            QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions()));
            QVERIFY(
                QProcess::execute(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("65534:65534"), home})
                == 0);
        }
    }
    const ino_t inode = inodeOf(path);

    const Run run = runHost(home, unprivileged);
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));

    if (outcome == QLatin1String("kept")) {
        QVERIFY2(run.alerts.isEmpty(), qPrintable(run.alerts.join(u'\n')));
        QCOMPARE(inodeOf(path), inode);
    } else if (outcome == QLatin1String("replaced")) {
        QCOMPARE(run.alerts, QStringList{kCorruptAlert});
        // A new, empty store took its place.
        QCOMPARE(sqlite(path, QStringLiteral("SELECT count(*) FROM ZHISTORY")), QStringLiteral("0"));
    } else {
        // The alert, then the store's own error and the stack's; every request of the store
        // during start-up tries again, with the same three.
        QVERIFY(!run.alerts.isEmpty() && run.alerts.size() % 3 == 0);
        for (qsizetype i = 0; i < run.alerts.size(); i += 3) {
            QCOMPARE(run.alerts.at(i), kCorruptAlert);
            QVERIFY(run.alerts.at(i + 1).startsWith(QStringLiteral("vantor.host: alert: The history store ")));
            QCOMPARE(run.alerts.at(i + 2),
                     QStringLiteral("vantor.host: alert: Failed to initialize the store: "
                                    "There was an error building up the data file."));
        }
        QVERIFY(QFileInfo(path).isDir());
    }
}

QTEST_GUILESS_MAIN(TestDamagedHistory)
#include "tst_damagedhistory.moc"
