// The real helper process compressing real folders: a loop-mounted btrfs and ext4 of the
// test's own, the pane's history controller reading the real store, and a desktop
// notification service on the test's bus that records what the helper tells the user.

#include "prefpane/ArrayController.h"
#include "common/HelperIdentity.h"
#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "LoopMount.h"
#include "common/Notifications.h"
#include "common/VTUtil.h"
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
#include <QScopeGuard>
#include <QTest>

#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

QString helperExecutable()
{
    return TestEnvironment::helperExecutable();
}

// Text that compresses well, as documents and source code do.
QByteArray text(qsizetype size, quint32 seed)
{
    static const char *const words[] = {"compress", "folder",       "savings ",       "helper",
                                        "btrfs\n",  "int main() {", "return 0;}\n",   "the ",
                                        "zstd ",    "record ",      "status = 100;\n"};
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
        // Read without marking anything read: in a snapshot that would unshare metadata.
        const int dirFd = ::open((root + relative).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOATIME);
        DIR *dir = dirFd >= 0 ? ::fdopendir(dirFd) : nullptr;
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
            const int fd = ::open((root + path).constData(), O_RDONLY | O_CLOEXEC | O_NOATIME);
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

// The ordinary user the "ordinary user" rows run the helper as.
constexpr uid_t kUser = 65534;
const QStringList kAsUser{QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                          QStringLiteral("--clear-groups")};

void chownToUser(const QString &path)
{
    run(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("%1:%1").arg(kUser), path});
}

// A figure of "btrfs filesystem usage -b", after everything written is committed.
qint64 usage(const QString &mountPoint, const QString &field)
{
    run(QStringLiteral("sync"), {});
    const QString out = run(QStringLiteral("btrfs"),
                            {QStringLiteral("filesystem"), QStringLiteral("usage"), QStringLiteral("-b"), mountPoint});
    for (const QString &line : out.split(u'\n')) {
        if (line.trimmed().startsWith(field))
            return line.mid(line.indexOf(field) + field.size()).simplified().section(u' ', 0, 0).toLongLong();
    }
    return -1;
}

// Bytes a file keeps to itself, as "btrfs filesystem du" tells from FIEMAP.
qint64 exclusiveBytes(const QString &path)
{
    const QString out = run(QStringLiteral("btrfs"),
                            {QStringLiteral("filesystem"), QStringLiteral("du"), QStringLiteral("--raw"), path});
    return out.split(u'\n').last().simplified().section(u' ', 1, 1).toLongLong();
}

// What compression really saves in path: "Uncompressed" less "Disk Usage" of compsize -b.
qint64 compsizeSavings(const QString &path)
{
    run(QStringLiteral("sync"), {});
    const QStringList total = run(QStringLiteral("compsize"), {QStringLiteral("-b"), path})
                                  .split(u'\n')
                                  .filter(QStringLiteral("TOTAL"))
                                  .value(0)
                                  .simplified()
                                  .split(u' ');
    return total.size() >= 4 ? total.at(3).toLongLong() - total.at(2).toLongLong() : -1;
}

// Whether a process watches the folder through inotify, as the kernel lists its watches.
bool isWatched(qint64 pid, const QString &folder)
{
    struct stat st { };
    ::stat(QFile::encodeName(folder).constData(), &st);
    const QByteArray inode = " ino:" + QByteArray::number(quint64(st.st_ino), 16) + ' ';
    const QString fdinfo = QStringLiteral("/proc/%1/fdinfo").arg(pid);
    for (const QString &fd : QDir(fdinfo).entryList(QDir::Files)) {
        if (TestEnvironment::readFile(fdinfo + u'/' + fd).contains(inode))
            return true;
    }
    return false;
}

void fallocate(const QString &path, qint64 bytes)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    QVERIFY(fd >= 0);
    QCOMPARE(::posix_fallocate(fd, 0, bytes), 0);
    ::close(fd);
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
    // Before the store is replaced under the pane, which does not open it again.
    void changesAreCompressedAsTheyCome_data() { asRootAndUser(); }
    void changesAreCompressedAsTheyCome();
    void movedFolderKeepsItsRecord_data() { asRootAndUser(); }
    void movedFolderKeepsItsRecord();
    void replacedStoreIsReopened();
    void updateCheckIsAnsweredByNotification();
    void sharedAndNocowDataAreLeftAlone_data() { asRootAndUser(); }
    void sharedAndNocowDataAreLeftAlone();
    void nearlyFullDiskWaitsForSpace_data() { asRootAndUser(); }
    void nearlyFullDiskWaitsForSpace();

private:
    static void asRootAndUser();
    void startHelper(bool asUser = false);
    QByteArray log() const;
    // A column of the folder's record, read from the store file as it is now.
    qint64 field(const QString &folder, const char *column) const
    {
        return sqlite(QStringLiteral("SELECT %1 FROM ZHISTORY WHERE ZFOLDER = '%2'").arg(QLatin1String(column), folder))
            .toLongLong();
    }
    void stopHelper();
    QString sqlite(const QString &sql) const;
    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    QVariantMap row(const QString &folder) const;
    quint32 status(const QString &folder) const { return row(folder).value(QStringLiteral("status")).toUInt(); }
    qint64 savings(const QString &folder) const { return row(folder).value(QStringLiteral("savings")).toLongLong(); }
    // Runs a command as the user the helper runs as.
    static QString runAs(bool asUser, QStringList command);
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
    // The next test's helper would look through every listed folder at its start: they are
    // removed as the pane removes them.
    const QString listed = QStringLiteral("SELECT ZFOLDER FROM ZHISTORY WHERE ZENABLED = 1");
    const QStringList folders = sqlite(listed).split(u'\n', Qt::SkipEmptyParts);
    if (m_helper && m_helper->state() == QProcess::Running && !folders.isEmpty()) {
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::Folders), {{QLatin1String(Notifications::FoldersToRemoveKey), folders}});
        QTRY_VERIFY(sqlite(listed).isEmpty());
    }
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

void TestHelperCompression::asRootAndUser()
{
    QTest::addColumn<bool>("asUser");
    QTest::newRow("root") << false;
    QTest::newRow("ordinary user") << true;
}

QByteArray TestHelperCompression::log() const
{
    return TestEnvironment::readFile(m_env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log"));
}

QString TestHelperCompression::runAs(bool asUser, QStringList command)
{
    if (asUser)
        return run(QStringLiteral("setpriv"), kAsUser + command);
    const QString program = command.takeFirst();
    return run(program, command);
}

void TestHelperCompression::startHelper(bool asUser)
{
    m_helper = std::make_unique<QProcess>();
    m_helper->setProcessChannelMode(QProcess::ForwardedChannels);
    if (asUser) {
        // The user's own home, store and log; root, who reads them here, may read anything.
        QVERIFY(QFile::setPermissions(m_env.root(), QFileDevice::Permissions(0x7755)));
        chownToUser(m_env.home());
        chownToUser(m_env.root() + QStringLiteral("/runtime"));
        m_helper->start(QStringLiteral("setpriv"), kAsUser + QStringList{helperExecutable()});
    } else {
        m_helper->start(helperExecutable(), {});
    }
    QVERIFY(m_helper->waitForStarted());
    QTRY_VERIFY(QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName()));
}

void TestHelperCompression::stopHelper()
{
    if (!m_helper || m_helper->state() == QProcess::NotRunning)
        return;
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
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
    QVERIFY2(run(QStringLiteral("compsize"), {folder + QStringLiteral("/report.txt")}).contains(QLatin1String("zstd")),
             "");
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
    QVERIFY(QTest::qWaitFor(
        [&] {
            if (recorder.count(QLatin1String(Notifications::SavingsChanged)) == 0)
                return false;
            recorder.clear();
            return sqlite(status).toInt() > 0;
        },
        60000));
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

    // Killed at any moment of later starts, with its rescan cache intact, replaced by random
    // bytes, or gone: nothing is lost and the next start ends with the same figure.
    const QString figure = QStringLiteral("SELECT ZSTATUS, ZSAVINGS FROM ZHISTORY WHERE ZFOLDER = '%1'").arg(folder);
    const QString done = sqlite(figure);
    const QString cache = m_env.home() + QStringLiteral("/.cache/vantor/files.cache");
    stopHelper();
    QVERIFY(QFileInfo(cache).size() > 0);
    for (int round = 0; round < 3; ++round) {
        if (round == 1)
            TestEnvironment::writeFile(cache, noise(QFileInfo(cache).size(), 60));
        if (round == 2)
            QFile::remove(cache);
        startHelper();
        QTest::qWait(QRandomGenerator::global()->bounded(1500));
        m_helper->kill();
        m_helper->waitForFinished();
    }
    const QByteArray summary = "\"" + QFile::encodeName(folder) + "\": ";
    const qsizetype passes = log().count(summary);
    startHelper();
    QTRY_VERIFY_WITH_TIMEOUT(log().count(summary) > passes, 120000);
    QTRY_COMPARE(sqlite(figure), done);
    QCOMPARE(hashes(folder), before);
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
    // Whatever it inherited (here the test's own output), the helper reads nothing and writes
    // its standard output nowhere and its standard error to its log.
    const QString fds = QStringLiteral("/proc/%1/fd/").arg(m_helper->processId());
    QCOMPARE(QFile::symLinkTarget(fds + u'0'), QStringLiteral("/dev/null"));
    QCOMPARE(QFile::symLinkTarget(fds + u'1'), QStringLiteral("/dev/null"));
    QCOMPARE(QFile::symLinkTarget(fds + u'2'), m_env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log"));
    m_notifications.calls.clear();
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldCheckForUpdates));
    QTRY_COMPARE(m_notifications.calls.size(), 1);
    QVERIFY(m_notifications.calls.first().body.contains(QLatin1String("package manager")));
}

void TestHelperCompression::sharedAndNocowDataAreLeftAlone()
{
    QFETCH(bool, asUser);
    if (!mountBtrfs())
        QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)");
    // A home in its own subvolume with a read-only snapshot, as Snapper and Timeshift keep them.
    const QString home = m_btrfs->mountPoint() + (asUser ? QStringLiteral("/user") : QStringLiteral("/root"));
    const QString folder = home + QStringLiteral("/Documents");
    QVERIFY(run(QStringLiteral("btrfs"), {QStringLiteral("subvolume"), QStringLiteral("create"), home}).contains(home));
    QDir().mkpath(folder);
    TestEnvironment::writeFile(folder + QStringLiteral("/old.txt"), text(6 << 20, 20));
    // Many folders: reading them must not change their metadata, which the snapshot shares.
    for (int i = 0; i < 600; ++i)
        TestEnvironment::writeFile(folder + QStringLiteral("/letters/%1/letter.txt").arg(i), text(8192, 100 + i));
    if (asUser)
        chownToUser(home);
    // Last read long ago, as copies keep their times: reading would mark them read again.
    run(QStringLiteral("find"),
        {folder, QStringLiteral("-exec"), QStringLiteral("touch"), QStringLiteral("-a"), QStringLiteral("-d"),
         QStringLiteral("2020-01-01"), QStringLiteral("{}"), QStringLiteral("+")});
    run(QStringLiteral("sync"), {});
    run(QStringLiteral("btrfs"),
        {QStringLiteral("subvolume"), QStringLiteral("snapshot"), QStringLiteral("-r"), home,
         home + QStringLiteral("-snapshot")});
    // Written since: new data, a reflinked copy, and a file with copy-on-write off.
    TestEnvironment::writeFile(folder + QStringLiteral("/new.txt"), text(3 << 20, 21));
    TestEnvironment::writeFile(folder + QStringLiteral("/copied.txt"), text(3 << 20, 22));
    run(QStringLiteral("cp"),
        {QStringLiteral("--reflink=always"), folder + QStringLiteral("/copied.txt"),
         folder + QStringLiteral("/copy.txt")});
    TestEnvironment::writeFile(folder + QStringLiteral("/disk.img"), QByteArray());
    run(QStringLiteral("chattr"), {QStringLiteral("+C"), folder + QStringLiteral("/disk.img")});
    TestEnvironment::writeFile(folder + QStringLiteral("/disk.img"), text(4 << 20, 23));
    for (const char *name : {"/new.txt", "/copied.txt", "/copy.txt", "/disk.img"}) {
        if (asUser)
            QCOMPARE(::chown(QFile::encodeName(folder + QLatin1String(name)).constData(), kUser, kUser), 0);
    }
    // Another user's file: readable, not the helper's to rewrite. It fails, is told, and saves nothing.
    if (asUser)
        TestEnvironment::writeFile(folder + QStringLiteral("/shared-by-root.txt"), text(1 << 20, 24));
    const auto before = hashes(folder);
    const qint64 usedBefore = usage(m_btrfs->mountPoint(), QStringLiteral("Used:"));

    startHelper(asUser);
    m_notifications.calls.clear();
    controller()->addFolders({folder});
    QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 60000);
    const qint64 usedAfter = usage(m_btrfs->mountPoint(), QStringLiteral("Used:"));
    const qint64 saved = field(folder, "ZSAVINGS");
    const qint64 newSaved = compsizeSavings(folder + QStringLiteral("/new.txt"));
    qInfo("used space %lld -> %lld (%+lld bytes); reported %lld saved, compsize of the new file %lld", usedBefore,
          usedAfter, usedAfter - usedBefore, saved, newSaved);
    // Only the new file was the folder's own: it alone was compressed and counted, and the file
    // system's used space did not grow (1% of the folder's 24 MB allowed for metadata).
    const qint64 noise = (24 << 20) / 100;
    QVERIFY(newSaved > (1 << 20));
    QVERIFY2(qAbs(saved - newSaved) <= newSaved / 100, qPrintable(QString::number(saved)));
    QVERIFY(usedAfter - usedBefore <= noise);
    QVERIFY(usedBefore - usedAfter >= saved - noise);
    for (const char *name : {"/old.txt", "/copied.txt", "/copy.txt"})
        QCOMPARE(exclusiveBytes(folder + QLatin1String(name)), qint64(0));
    QCOMPARE(compsizeSavings(folder + QStringLiteral("/disk.img")), qint64(0));
    QCOMPARE(hashes(folder), before);
    QTRY_COMPARE(m_notifications.calls.size(), 1);
    QCOMPARE(m_notifications.calls.first().body,
             QStringLiteral("%1 in Documents is shared with snapshots or copies and was left as it is: compressing "
                            "it now would take more space until those are deleted")
                 .arg(VTUtil::getPrettySize((12u << 20) + 600 * 8192)));

    if (asUser)
        QVERIFY(log().contains("/shared-by-root.txt\" could not be compressed: Permission denied")
                && log().contains(", 1 failed (Permission denied), "));
    // The file with copy-on-write off is skipped with its reason once, and not tried again.
    const QByteArray skipped = QFile::encodeName(folder) + "/disk.img\" was left as it is: copy-on-write is off";
    const QByteArray summary = "\"" + QFile::encodeName(folder) + "\": ";
    QCOMPARE(log().count(skipped), 1);
    const qsizetype passes = log().count(summary);
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::Folders), {{QLatin1String(Notifications::FoldersToAddKey), QStringList{folder}}});
    QTRY_COMPARE_WITH_TIMEOUT(log().count(summary), passes + 1, 60000);
    QCOMPARE(log().count(skipped), 1);
    QCOMPARE(m_notifications.calls.size(), 1);
}

void TestHelperCompression::nearlyFullDiskWaitsForSpace()
{
    QFETCH(bool, asUser);
    const QString dir = m_env.root() + (asUser ? QStringLiteral("/full-user") : QStringLiteral("/full-root"));
    QDir().mkpath(dir);
    LoopMount disk(dir, QStringLiteral("btrfs"), 256);
    if (!disk.mount())
        QSKIP(qPrintable(QStringLiteral("a btrfs image cannot be mounted here: ") + disk.reason()));
    // The helper lets go of the file system before it is unmounted, also when a check fails.
    const auto stop = qScopeGuard([this] { stopHelper(); });
    const QString folder = disk.mountPoint() + QStringLiteral("/Documents");
    QDir().mkpath(folder);
    for (int i = 0; i < 10; ++i)
        TestEnvironment::writeFile(folder + QStringLiteral("/report%1.txt").arg(i),
                                   text((3 << 20) + i * 65536, 30 + i));
    if (asUser)
        chownToUser(folder);
    const auto before = hashes(folder);
    // 8 MB left, then 5 MB: less than the helper's margin and a step.
    const auto freeSpace = [&] { return usage(disk.mountPoint(), QStringLiteral("Free (statfs, df):")); };
    fallocate(disk.mountPoint() + QStringLiteral("/filler"), freeSpace() - (8 << 20));
    fallocate(disk.mountPoint() + QStringLiteral("/more"), freeSpace() - (5 << 20));
    const qint64 fullFree = freeSpace();

    startHelper(asUser);
    m_notifications.calls.clear();
    controller()->addFolders({folder});
    QTRY_COMPARE_WITH_TIMEOUT(m_notifications.calls.size(), 1, 30000);
    QVERIFY2(m_notifications.calls.first().body.startsWith(
                 QLatin1String("Documents waits to be compressed: its disk is nearly full. Free ")),
             qPrintable(m_notifications.calls.first().body));
    QVERIFY(field(folder, "ZSTATUS") < 100);
    QCOMPARE(hashes(folder), before);
    QVERIFY(freeSpace() >= fullFree - (1 << 20) / 10);

    // Space comes back: the helper goes on by itself, in small steps, and ends with more free.
    QFile::remove(disk.mountPoint() + QStringLiteral("/more"));
    const qint64 startFree = freeSpace();
    QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 120000);
    const qint64 endFree = freeSpace();
    qInfo("free space %lld with the disk full, %lld when space came back, %lld at the end", fullFree, startFree,
          endFree);
    QVERIFY(endFree > startFree + (10 << 20));
    QVERIFY(field(folder, "ZSAVINGS") > (10 << 20));
    QCOMPARE(hashes(folder), before);
    QCOMPARE(m_notifications.calls.size(), 1);
}

void TestHelperCompression::changesAreCompressedAsTheyCome()
{
    QFETCH(bool, asUser);
    if (!mountBtrfs())
        QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)");
    const QString base =
        m_btrfs->mountPoint() + (asUser ? QStringLiteral("/changes-user") : QStringLiteral("/changes-root"));
    const QString folder = base + QStringLiteral("/Notes");
    const QString outside = base + QStringLiteral("/Downloads");
    QDir().mkpath(folder);
    TestEnvironment::writeFile(folder + QStringLiteral("/a.txt"), text(1 << 20, 40));
    TestEnvironment::writeFile(outside + QStringLiteral("/moved.txt"), text(2 << 20, 41));
    TestEnvironment::writeFile(outside + QStringLiteral("/source.txt"), text(2 << 20, 42));
    TestEnvironment::writeFile(outside + QStringLiteral("/tree/deeper/b.txt"), text(1 << 20, 43));
    TestEnvironment::writeFile(outside + QStringLiteral("/more.txt"), text(512 << 10, 44));
    if (asUser)
        chownToUser(base);
    startHelper(asUser);
    controller()->addFolders({folder});
    QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 60000);

    // Each change is followed: the record's figure is what compsize measures for the whole
    // folder (a shared copy saves nothing), the pane hears of it, and the status is back at 100.
    struct Change {
        QStringList command;
        const char *file;
    };
    const Change changes[] = {
        {{QStringLiteral("mv"), outside + QStringLiteral("/moved.txt"), folder}, "/moved.txt"},
        {{QStringLiteral("cp"), QStringLiteral("--reflink=always"), outside + QStringLiteral("/source.txt"),
          folder + QStringLiteral("/copy.txt")},
         nullptr},
        {{QStringLiteral("sh"), QStringLiteral("-c"), QStringLiteral("cat \"$0\" >> \"$1\""),
          outside + QStringLiteral("/more.txt"), folder + QStringLiteral("/a.txt")},
         "/a.txt"},
        {{QStringLiteral("cp"), QStringLiteral("-r"), QStringLiteral("--reflink=never"),
          outside + QStringLiteral("/tree"), folder + QStringLiteral("/tree")},
         "/tree/deeper/b.txt"},
        {{QStringLiteral("rm"), folder + QStringLiteral("/moved.txt")}, nullptr},
    };
    for (const Change &change : changes) {
        runAs(asUser, change.command);
        QTRY_VERIFY(field(folder, "ZSTATUS") < 100);
        QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 60000);
        const qint64 measured = compsizeSavings(folder);
        QVERIFY2(qAbs(field(folder, "ZSAVINGS") - measured) <= measured / 100,
                 qPrintable(QStringLiteral("%1: %2 recorded, %3 measured")
                                .arg(change.command.join(u' '))
                                .arg(field(folder, "ZSAVINGS"))
                                .arg(measured)));
        if (change.file)
            QVERIFY(!run(QStringLiteral("compsize"), {folder + QLatin1String(change.file)})
                         .contains(QLatin1String("none")));
    }
    QCOMPARE(exclusiveBytes(folder + QStringLiteral("/copy.txt")), qint64(0));
    QVERIFY(field(folder, "ZSAVINGS") > (1 << 20));
    QTRY_COMPARE(savings(folder), field(folder, "ZSAVINGS")); // and the pane shows it
}

void TestHelperCompression::movedFolderKeepsItsRecord()
{
    QFETCH(bool, asUser);
    if (!mountBtrfs())
        QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)");
    const QString base =
        m_btrfs->mountPoint() + (asUser ? QStringLiteral("/moves-user") : QStringLiteral("/moves-root"));
    const QStringList names{base + QStringLiteral("/Project"), base + QStringLiteral("/Renamed"),
                            base + QStringLiteral("/Archive/Moved")};
    QDir().mkpath(names[0]);
    QDir().mkpath(base + QStringLiteral("/Archive"));
    TestEnvironment::writeFile(names[0] + QStringLiteral("/plan.txt"), text(1 << 20, 50));
    if (asUser)
        chownToUser(base);
    startHelper(asUser);
    controller()->addFolders({names[0]});
    QTRY_COMPARE_WITH_TIMEOUT(status(names[0]), 100u, 60000);
    const qint64 saved = savings(names[0]);
    QVERIFY(saved > 0);
    const QString record = QStringLiteral("SELECT COUNT(*), ZFOLDER FROM ZHISTORY WHERE ZFOLDER LIKE '%1%'").arg(base);

    // Renamed while the pane shows it, then moved while the helper is not running: one record
    // follows it, path and alias together, and the table shows it with its savings.
    QVERIFY(QFile::rename(names[0], names[1]));
    QTRY_COMPARE(savings(names[1]), saved);
    QCOMPARE(sqlite(record), QStringLiteral("1|") + names[1]);
    QVERIFY(controller()->folders().value().contains(names[1]));
    stopHelper();
    QVERIFY(QFile::rename(names[1], names[2]));
    startHelper(asUser);
    QTRY_COMPARE(savings(names[2]), saved);
    QCOMPARE(sqlite(record), QStringLiteral("1|") + names[2]);
    QTRY_COMPARE(status(names[2]), 100u);

    // Removed from the pane, it is no longer watched.
    QVERIFY(isWatched(m_helper->processId(), names[2]));
    const auto rows = controller()->foldersArrayController()->arrangedObjects();
    for (int i = 0; i < rows.size(); ++i) {
        if (rows[i].value(QStringLiteral("folder")).toString() == names[2])
            controller()->foldersArrayController()->setSelectionIndexes({i});
    }
    controller()->removeFolders();
    QTRY_VERIFY(row(names[2]).isEmpty());
    QTRY_VERIFY(!isWatched(m_helper->processId(), names[2]));
}

QTEST_MAIN(TestHelperCompression)
#include "tst_helpercompression.moc"
