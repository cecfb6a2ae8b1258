// The real helper process compressing real folders: a loop-mounted btrfs and ext4 of the
// test's own, the pane's history controller reading the real store, and a desktop
// notification service on the test's bus that records what the helper tells the user.

#include "prefpane/ArrayController.h"
#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "LoopMount.h"
#include "common/Notifications.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "NotificationRecorder.h"
#include "TestEnvironment.h"
#include "prefpane/VTHistoryController.h"

#include <QCryptographicHash>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTest>

#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

QString helperExecutable()
{
    return TestEnvironment::paneBundle()
        + QStringLiteral("/Contents/Resources/VantorHelper.app/Contents/MacOS/VantorHelper");
}

// Text that compresses well, as documents and source code do.
QByteArray text(qsizetype size, quint32 seed)
{
    static const char *const words[] = {"compress", "folder", "savings ", "helper", "btrfs\n", "int main() {",
                                        "return 0;}\n", "the ", "zstd ", "record ", "status = 100;\n"};
    QRandomGenerator random(seed);
    QByteArray bytes;
    bytes.reserve(size);
    while (bytes.size() < size)
        bytes += words[random.bounded(int(std::size(words)))];
    bytes.truncate(size);
    return bytes;
}

QByteArray noise(qsizetype size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

// Every file's content hash, by its path relative to the folder, as bytes: file names need
// not be UTF-8, so neither QString nor QDirIterator may carry them.
QMap<QByteArray, QByteArray> hashes(const QString &folder)
{
    QMap<QByteArray, QByteArray> result;
    const QByteArray root = QFile::encodeName(folder);
    QList<QByteArray> pending{QByteArray()};
    while (!pending.isEmpty()) {
        const QByteArray relative = pending.takeLast();
        DIR *dir = ::opendir((root + relative).constData());
        if (!dir)
            continue;
        while (const dirent *entry = ::readdir(dir)) {
            const QByteArray path = relative + '/' + entry->d_name;
            if (qstrcmp(entry->d_name, ".") == 0 || qstrcmp(entry->d_name, "..") == 0)
                continue;
            if (entry->d_type == DT_DIR) {
                pending.append(path);
                continue;
            }
            QFile file;
            QCryptographicHash hash(QCryptographicHash::Sha256);
            const int fd = ::open((root + path).constData(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0 && file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
                hash.addData(&file);
            else
                hash.addData("unreadable");
            result.insert(path, hash.result());
        }
        ::closedir(dir);
    }
    return result;
}

void writeBytes(const QByteArray &path, const QByteArray &bytes)
{
    QFile file;
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0 && file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle))
        file.write(bytes);
}

QString run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(60000);
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

} // namespace

// Stands in for the desktop's notification service.
class NotificationServer : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Call {
        QString summary;
        QString body;
    };
    QList<Call> calls;

public Q_SLOTS:
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int)
    {
        calls.append({summary, body});
        return uint(calls.size());
    }
};

class TestHelperCompression : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void cleanupTestCase();
    void btrfsFolderIsCompressed();
    void namesNotUtf8AreCompressed();
    void itemsTooDeepToOpenAreTold();
    void ext4FolderIsLeftAlone();
    void killedHelperResumesWithoutHarm();
    void replacedStoreIsReopened();
    void updateCheckIsAnsweredByNotification();

private:
    void startHelper();
    void stopHelper();
    QString sqlite(const QString &sql) const;
    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    QVariantMap row(const QString &folder) const;
    bool mountBtrfs();

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    QFTableView m_table;
    NotificationServer m_notifications;
    std::unique_ptr<QProcess> m_helper;
    std::unique_ptr<LoopMount> m_btrfs;
};

void TestHelperCompression::initTestCase()
{
    QVERIFY(Bundle::bundleWithPath(TestEnvironment::paneBundle()));
    QDBusConnection bus = QDBusConnection::sessionBus();
    QVERIFY(bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &m_notifications,
                               QDBusConnection::ExportAllSlots));
    QVERIFY(bus.registerService(QStringLiteral("org.freedesktop.Notifications")));
    QVERIFY(VTHistoryController::create());
    controller()->awakeFromNib(&m_table);
}

void TestHelperCompression::cleanup()
{
    stopHelper();
}

void TestHelperCompression::cleanupTestCase()
{
    stopHelper();
    m_btrfs.reset();
}

bool TestHelperCompression::mountBtrfs()
{
    if (!m_btrfs) {
        m_btrfs = std::make_unique<LoopMount>(m_env.root(), QStringLiteral("btrfs"), 512);
        if (!m_btrfs->mount()) {
            qWarning("cannot mount a btrfs image here: %s", qPrintable(m_btrfs->reason()));
            m_btrfs.reset();
            return false;
        }
    }
    return true;
}

void TestHelperCompression::startHelper()
{
    m_helper = std::make_unique<QProcess>();
    m_helper->setProcessChannelMode(QProcess::ForwardedChannels);
    m_helper->start(helperExecutable(), {});
    QVERIFY(m_helper->waitForStarted());
    QTRY_VERIFY(QDBusConnection::sessionBus().interface()->isServiceRegistered(QStringLiteral("com.quillfen.VantorHelper")));
}

void TestHelperCompression::stopHelper()
{
    if (!m_helper || m_helper->state() == QProcess::NotRunning)
        return;
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::HelperShouldQuit));
    if (!m_helper->waitForFinished(15000)) {
        m_helper->kill();
        m_helper->waitForFinished();
        QFAIL("the helper did not quit when asked");
    }
}

QString TestHelperCompression::sqlite(const QString &sql) const
{
    return run(QStringLiteral("sqlite3"), {m_env.productFolder() + QStringLiteral("/history.db"), sql});
}

QVariantMap TestHelperCompression::row(const QString &folder) const
{
    for (const QVariantMap &entry : controller()->foldersArrayController()->arrangedObjects()) {
        if (entry.value(QStringLiteral("folder")).toString() == folder)
            return entry;
    }
    return {};
}

void TestHelperCompression::btrfsFolderIsCompressed()
{
    if (!mountBtrfs())
        QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)");
    const QString folder = m_btrfs->mountPoint() + QStringLiteral("/Documents");
    QDir().mkpath(folder + QStringLiteral("/src"));
    TestEnvironment::writeFile(folder + QStringLiteral("/report.txt"), text(3 << 20, 1));
    TestEnvironment::writeFile(folder + QStringLiteral("/src/main.cpp"), text(700 << 10, 2));
    TestEnvironment::writeFile(folder + QStringLiteral("/photo.raw"), noise(2 << 20, 3));
    TestEnvironment::writeFile(folder + QStringLiteral("/archive.gz"), text(1 << 20, 4)); // excluded by name
    const auto before = hashes(folder);
    run(QStringLiteral("sync"), {});

    startHelper();
    controller()->addFolders({folder});
    QTRY_COMPARE_WITH_TIMEOUT(row(folder).value(QStringLiteral("status")).toUInt(), 100u, 60000);
    QCOMPARE(sqlite(QStringLiteral("SELECT COUNT(*), ZSTATUS, ZENABLED FROM ZHISTORY")), QStringLiteral("1|100|1"));

    // On disk: the text is stored compressed, the noise and the excluded file are not.
    run(QStringLiteral("sync"), {});
    const QString all = run(QStringLiteral("compsize"), {folder});
    QVERIFY2(all.contains(QLatin1String("zstd")), qPrintable(all));
    QVERIFY2(run(QStringLiteral("compsize"), {folder + QStringLiteral("/report.txt")}).contains(QLatin1String("zstd")), "");
    QVERIFY(!run(QStringLiteral("compsize"), {folder + QStringLiteral("/photo.raw")}).contains(QLatin1String("zstd")));
    QVERIFY(!run(QStringLiteral("compsize"), {folder + QStringLiteral("/archive.gz")}).contains(QLatin1String("zstd")));
    QCOMPARE(hashes(folder), before);
    // New files are compressed by the file system from now on.
    char property[16] = {};
    QCOMPARE(::getxattr(QFile::encodeName(folder).constData(), "btrfs.compression", property, sizeof property - 1), 4);
    QCOMPARE(QByteArray(property), QByteArray("zstd"));

    // The savings are in the table and the total.
    const quint64 savings = row(folder).value(QStringLiteral("savings")).toULongLong();
    QVERIFY2(savings > (3u << 20), qPrintable(QString::number(savings)));
    QCOMPARE(controller()->totalSavings(), savings);

    // Removed: the savings move to the summary row.
    controller()->foldersArrayController()->setSelectionIndexes({0});
    controller()->removeFolders();
    QTRY_COMPARE(controller()->previousSavings(), savings);
    QVERIFY(row(folder).isEmpty());
    QCOMPARE(controller()->totalSavings(), savings);
    QCOMPARE(sqlite(QStringLiteral("SELECT ZENABLED, ZSAVINGS FROM ZHISTORY")), QStringLiteral("0|%1").arg(savings));

    // Added again: the same record, listed again.
    controller()->addFolders({folder + u'/'});
    QTRY_COMPARE_WITH_TIMEOUT(row(folder).value(QStringLiteral("status")).toUInt(), 100u, 60000);
    QCOMPARE(sqlite(QStringLiteral("SELECT COUNT(*), ZENABLED FROM ZHISTORY")), QStringLiteral("1|1"));
    QTRY_COMPARE(controller()->previousSavings(), quint64(0));
}

void TestHelperCompression::namesNotUtf8AreCompressed()
{
    if (!mountBtrfs())
        QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)");
    // Any bytes may name a file or folder inside a watched folder; only the watched
    // folder's own path must be UTF-8.
    const QString folder = m_btrfs->mountPoint() + QStringLiteral("/Latin-1");
    const QByteArray root = QFile::encodeName(folder);
    const QList<QByteArray> files{"/caf\xe9.txt", "/r\xe9sum\xe9s/notes \xff\xfe.txt"};
    QVERIFY(QDir().mkpath(folder));
    QCOMPARE(::mkdir((root + "/r\xe9sum\xe9s").constData(), 0700), 0);
    writeBytes(root + files[0], text(1 << 20, 5));
    writeBytes(root + files[1], text(512 << 10, 6));
    const auto before = hashes(folder);
    QCOMPARE(before.keys(), QList<QByteArray>({files[0], files[1]}));
    run(QStringLiteral("sync"), {});

    startHelper();
    controller()->addFolders({folder});
    QTRY_COMPARE_WITH_TIMEOUT(row(folder).value(QStringLiteral("status")).toUInt(), 100u, 60000);
    // The first file alone cannot save 1 MB, nor the second half of one: both counted.
    const quint64 savings = row(folder).value(QStringLiteral("savings")).toULongLong();
    QVERIFY2(savings > (1u << 20), qPrintable(QString::number(savings)));
    QCOMPARE(hashes(folder), before);
    run(QStringLiteral("sync"), {});
    for (const QByteArray &file : files) {
        // compsize is given an ASCII name of the same file: its arguments are text.
        const QByteArray link = QFile::encodeName(m_btrfs->mountPoint()) + "/link";
        QCOMPARE(::link((root + file).constData(), link.constData()), 0);
        const QString report = run(QStringLiteral("compsize"), {QFile::decodeName(link)});
        ::unlink(link.constData());
        QVERIFY2(report.contains(QLatin1String("zstd")), qPrintable(report));
    }
}

void TestHelperCompression::itemsTooDeepToOpenAreTold()
{
    if (!mountBtrfs())
        QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)");
    // Linux lets folders nest deeper than a path can name; what lies there cannot be opened
    // by path, and the helper says so instead of passing over it in silence.
    const QString folder = m_btrfs->mountPoint() + QStringLiteral("/Deep");
    QVERIFY(QDir().mkpath(folder));
    writeBytes(QFile::encodeName(folder) + "/shallow.txt", text(256 << 10, 7));
    int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QVERIFY(fd >= 0);
    const QByteArray name(200, 'd');
    for (int depth = 0; depth < 22; ++depth) { // 22 x 201 bytes: past the 4,096 a path may have
        QCOMPARE(::mkdirat(fd, name.constData(), 0700), 0);
        const int child = ::openat(fd, name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = child;
        QVERIFY(fd >= 0);
    }
    const int file = ::openat(fd, "deep.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    QVERIFY(file >= 0);
    const QByteArray bytes = text(256 << 10, 8);
    QCOMPARE(::write(file, bytes.constData(), size_t(bytes.size())), ssize_t(bytes.size()));
    ::close(file);
    ::close(fd);

    startHelper();
    controller()->addFolders({folder});
    QTRY_COMPARE_WITH_TIMEOUT(row(folder).value(QStringLiteral("status")).toUInt(), 100u, 60000);
    QVERIFY(row(folder).value(QStringLiteral("savings")).toULongLong() > 0);
    const QByteArray log =
        TestEnvironment::readFile(m_env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log"));
    QVERIFY2(log.contains("items in \"" + QFile::encodeName(folder) + "\" could not be opened (File name too long)"),
             log.right(2000).constData());
}

void TestHelperCompression::ext4FolderIsLeftAlone()
{
    LoopMount ext4(m_env.root(), QStringLiteral("ext4"), 64);
    if (!ext4.mount())
        QSKIP(qPrintable(QStringLiteral("an ext4 image cannot be mounted here: ") + ext4.reason()));
    const QString folder = ext4.mountPoint() + QStringLiteral("/Music");
    QDir().mkpath(folder);
    TestEnvironment::writeFile(folder + QStringLiteral("/lyrics.txt"), text(1 << 20, 6));
    const auto before = hashes(folder);
    const QFileInfo info(folder + QStringLiteral("/lyrics.txt"));
    const QDateTime changed = info.metadataChangeTime();

    startHelper();
    m_notifications.calls.clear();
    controller()->addFolders({folder});
    QTRY_COMPARE_WITH_TIMEOUT(row(folder).value(QStringLiteral("status")).toUInt(), 100u, 10000);
    QCOMPARE(row(folder).value(QStringLiteral("savings")).toULongLong(), quint64(0));
    QTRY_COMPARE(m_notifications.calls.size(), 1);
    QVERIFY(m_notifications.calls.first().summary.contains(folder));
    QVERIFY2(m_notifications.calls.first().body.contains(QLatin1String(" is on ext4, ")),
             qPrintable(m_notifications.calls.first().body));
    QCOMPARE(hashes(folder), before);
    QCOMPARE(QFileInfo(folder + QStringLiteral("/lyrics.txt")).metadataChangeTime(), changed);
    stopHelper();
    controller()->foldersArrayController()->setSelectionIndexes({});
}

void TestHelperCompression::killedHelperResumesWithoutHarm()
{
    if (!mountBtrfs())
        QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)");
    const QString folder = m_btrfs->mountPoint() + QStringLiteral("/Projects");
    QDir().mkpath(folder);
    for (int i = 0; i < 240; ++i)
        TestEnvironment::writeFile(folder + QStringLiteral("/file%1.txt").arg(i), text(1 << 20, 100 + i));
    const auto before = hashes(folder);
    run(QStringLiteral("sync"), {});

    startHelper();
    NotificationRecorder recorder;
    controller()->addFolders({folder});
    const QString status = QStringLiteral("SELECT ZSTATUS FROM ZHISTORY WHERE ZFOLDER = '%1'").arg(folder);
    // Killed as soon as it reports progress: polling the store instead can miss a fast machine.
    QVERIFY(QTest::qWaitFor([&] {
        if (recorder.count(QLatin1String(Notifications::SavingsChanged)) == 0)
            return false;
        recorder.clear();
        return sqlite(status).toInt() > 0;
    }, 60000));
    m_helper->kill();
    m_helper->waitForFinished();
    const int reached = sqlite(status).toInt();
    QVERIFY2(reached < 100, "the folder was finished before the helper could be killed");

    startHelper();
    QTRY_COMPARE_WITH_TIMEOUT(sqlite(status).toInt(), 100, 120000);
    QCOMPARE(sqlite(QStringLiteral("SELECT COUNT(*) FROM ZHISTORY WHERE ZFOLDER = '%1'").arg(folder)),
             QStringLiteral("1"));
    QCOMPARE(hashes(folder), before);
    run(QStringLiteral("sync"), {});
    QVERIFY(run(QStringLiteral("compsize"), {folder}).contains(QLatin1String("zstd")));
}

void TestHelperCompression::replacedStoreIsReopened()
{
    startHelper();
    // The pane deletes an unusable store; the helper must not keep writing to the old file.
    const QString store = m_env.productFolder() + QStringLiteral("/history.db");
    for (const char *suffix : {"", "-wal", "-shm"})
        QFile::remove(store + QLatin1String(suffix));
    const QString folder = m_env.root() + QStringLiteral("/plain");
    QDir().mkpath(folder);
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::Folders), {{QLatin1String(Notifications::FoldersToAddKey), QStringList{folder}}});
    QTRY_COMPARE(sqlite(QStringLiteral("SELECT ZFOLDER, ZSTATUS FROM ZHISTORY")), folder + QStringLiteral("|100"));
}

void TestHelperCompression::updateCheckIsAnsweredByNotification()
{
    startHelper();
    m_notifications.calls.clear();
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldCheckForUpdates));
    QTRY_COMPARE(m_notifications.calls.size(), 1);
    QVERIFY(m_notifications.calls.first().body.contains(QLatin1String("package manager")));
}

QTEST_MAIN(TestHelperCompression)
#include "tst_helpercompression.moc"
