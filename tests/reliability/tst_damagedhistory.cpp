// Damaged "history.db" files through the whole start-up of the host with the pane: each is
// read as far as it reads, replaced after the alert, or (where none can be made) refused.
#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString kCorruptAlert =
    u"vantor.host: alert: Vantor Database Error: Vantor database is corrupt, and recovery attempts did not "
    "succeed.  A new empty database will be created now. Please note you will lose your configured folders and "
    "savings history."_s;
constexpr qint64 kPage = 4096;

enum Outcome { Kept, Replaced, Unattachable };

ino_t inodeOf(const QString &path)
{
    struct stat st { };
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_ino : 0;
}

void overwrite(const QString &path, qint64 offset, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite) && file.seek(offset));
    QCOMPARE(file.write(bytes), bytes.size());
}

// The host's alerts (the lines it logs for them), or "exit N" first when it did not end well.
QStringList runHost(const QString &home, bool asNobody)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(u"HOME"_s, home);
    for (const char *var : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR", "TMPDIR"})
        env.remove(QLatin1String(var));
    env.insert(u"QT_QPA_PLATFORM"_s, u"offscreen"_s);
    QStringList args{TestEnvironment::hostExecutable(), u"--pane"_s, TestEnvironment::paneBundle(), u"--screenshot"_s,
                     home + u"/x.png"_s};
    if (asNobody) {
        // Nobody's own session bus is not ours; the host runs without one.
        env.remove(u"DBUS_SESSION_BUS_ADDRESS"_s);
        args = QStringList{u"setpriv"_s, u"--reuid=65534"_s, u"--regid=65534"_s, u"--clear-groups"_s} + args;
    }
    QProcess host;
    host.setProcessEnvironment(env);
    host.start(args.takeFirst(), args);
    if (!host.waitForFinished(120000))
        host.kill();
    const QString err = QString::fromUtf8(host.readAllStandardError());
    QStringList alerts = err.split(u'\n').filter(u"vantor.host: alert: "_s);
    if (host.exitStatus() != QProcess::NormalExit || host.exitCode() != 0)
        alerts.prepend(u"exit %1: %2"_s.arg(host.exitCode()).arg(err));
    return alerts;
}

} // namespace

class TestDamagedHistory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // Another user must reach the homes made inside.
        QVERIFY(QFile::setPermissions(m_dir.path(), QFileDevice::Permissions(0x7755)));
        const QString home = m_dir.path() + u"/template"_s;
        QCOMPARE(runHost(home, false), QStringList());
        m_sound = home + u"/.local/share/Vantor/history.db"_s;
        TestEnvironment::sqlite(m_sound,
                                u"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<2000) "
                                "INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) "
                                "SELECT printf('/home/u/folder %05d with a long name to fill the pages', i), i % 101, "
                                "i * 1000, i % 2 FROM n; PRAGMA wal_checkpoint(TRUNCATE);"_s);
        QVERIFY(QFileInfo(m_sound).size() > 40 * kPage);
    }

    void damagedStore_data()
    {
        QTest::addColumn<int>("outcome");
        QTest::newRow("empty") << int(Kept);
        // The header's page count no longer matches the file: the schema cannot be read.
        QTest::newRow("truncated to half") << int(Replaced);
        QTest::newRow("zeroed first page") << int(Replaced);
        QTest::newRow("zeroed pages") << int(Kept);
        QTest::newRow("damaged schema") << int(Replaced);
        QTest::newRow("damaged data pages") << int(Kept);
        QTest::newRow("directory in its place") << int(Unattachable);
        QTest::newRow("no permission to read") << int(Replaced);
    }
    void damagedStore()
    {
        QFETCH(int, outcome);
        const QString damage = QString::fromUtf8(QTest::currentDataTag());
        const bool asNobody = damage == u"no permission to read";
        if (asNobody && ::geteuid() != 0)
            QSKIP("the unreadable store is tested as another user, which needs root");

        const QString home = m_dir.path() + u'/' + damage;
        const QString path = home + u"/.local/share/Vantor/history.db"_s;
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        if (damage == u"empty") {
            TestEnvironment::writeFile(path, {});
        } else if (damage == u"directory in its place") {
            QVERIFY(QDir().mkpath(path));
        } else {
            QVERIFY(QFile::copy(m_sound, path));
            QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
            if (damage.startsWith(u"truncated"))
                QVERIFY(QFile::resize(path, QFileInfo(path).size() / 2));
            if (damage.startsWith(u"zeroed"))
                overwrite(path, damage.contains(u"first") ? 0 : 5 * kPage, QByteArray(4 * kPage, '\0'));
            if (damage == u"damaged data pages")
                overwrite(path, 10 * kPage, QByteArray(3 * kPage, '\xA5'));
            if (damage == u"damaged schema") {
                const qsizetype at = TestEnvironment::readFile(path).indexOf("CREATE TABLE ZHISTORY");
                QVERIFY(at > 0 && at < kPage);
                overwrite(path, at, "CREATE TABXE ZH(STORY");
            }
            if (asNobody) {
                QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions()));
                QCOMPARE(QProcess::execute(u"chown"_s, {u"-R"_s, u"65534:65534"_s, home}), 0);
            }
        }
        const ino_t inode = inodeOf(path);

        const QStringList alerts = runHost(home, asNobody);
        QVERIFY2(alerts.isEmpty() || !alerts.first().startsWith(u"exit"), qPrintable(alerts.join(u'\n')));
        if (outcome == Kept) {
            QCOMPARE(alerts, QStringList());
            QCOMPARE(inodeOf(path), inode);
        } else if (outcome == Replaced) {
            QCOMPARE(alerts, QStringList{kCorruptAlert});
            QCOMPARE(TestEnvironment::sqlite(path, u"SELECT count(*) FROM ZHISTORY"_s), u"0"_s);
        } else {
            // The alert, then the store's own error and the stack's, for every request of the store.
            QVERIFY(alerts.size() >= 3 && alerts.count(kCorruptAlert) == alerts.size() / 3);
            QVERIFY(alerts.last().endsWith(u"There was an error building up the data file."_s));
            QVERIFY(QFileInfo(path).isDir());
        }
    }

private:
    QTemporaryDir m_dir;
    QString m_sound; // a store of 2,000 records, made by the pane and filled as the helper would
};

QTEST_GUILESS_MAIN(TestDamagedHistory)
#include "tst_damagedhistory.moc"
