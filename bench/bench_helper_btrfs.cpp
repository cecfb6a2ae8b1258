// The helper compressing a mixed corpus on a loop-mounted btrfs, against
// "btrfs filesystem defragment -r -czstd" on a copy of the same corpus: throughput of both,
// and the savings the helper reports against what compsize measures on disk for its folder.
// Needs root (mounting, compsize); says so and stops where that is not possible.

#include "platform/DistributedNotificationCenter.h"
#include "common/Notifications.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr qint64 MiB = 1024 * 1024;

bool run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    const bool ok = process.waitForFinished(600000) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
    const QByteArray all = process.readAllStandardOutput();
    if (output)
        *output = all;
    if (!ok)
        std::fprintf(stderr, "bench-helper-btrfs: %s %s failed: %s\n", qPrintable(program),
                     qPrintable(arguments.join(u' ')), process.readAllStandardError().constData());
    return ok;
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly))
        f.write(bytes);
}

// Copies regular files below from into to, up to budget bytes.
qint64 copyTree(const QString &from, const QString &to, qint64 budget, const QStringList &filters = {})
{
    qint64 copied = 0;
    QDirIterator it(from, filters, QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext() && copied < budget) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        if (!info.isReadable() || info.size() == 0 || info.size() > 16 * MiB)
            continue;
        const QString target = to + path.mid(from.size());
        QDir().mkpath(QFileInfo(target).absolutePath());
        if (QFile::copy(path, target))
            copied += info.size();
    }
    return copied;
}

// Text, source code, binaries and already-compressed media, about 160 MB.
void makeCorpus(const QString &dir)
{
    copyTree(QStringLiteral("/usr/include"), dir + QStringLiteral("/source"), 45 * MiB);
    copyTree(QStringLiteral("/usr/lib/x86_64-linux-gnu"), dir + QStringLiteral("/binaries"), 45 * MiB,
             {QStringLiteral("*.so*")});
    copyTree(QStringLiteral("/usr/share/doc"), dir + QStringLiteral("/text/doc"), 5 * MiB,
             {QStringLiteral("copyright")});
    static const char *const words[] = {"the ",    "space ",  "saved ", "by ",     "compression ", "folder ",
                                        "report ", "of ",     "disk\n", "which ",  "quarterly ",   "figures ",
                                        "and ",    "notes. ", "2024 ",  "Vantor ", "users ",       "files, "};
    QRandomGenerator random(7);
    for (int i = 0; i < 20; ++i) {
        QByteArray text;
        while (text.size() < MiB + i * 37 * 1024)
            text += words[random.bounded(int(std::size(words)))];
        writeFile(dir + QStringLiteral("/text/report%1.txt").arg(i), text);
    }
    for (int i = 0; i < 10; ++i) {
        QByteArray media(3 * MiB + i * 4096 + 123, Qt::Uninitialized);
        random.fillRange(reinterpret_cast<quint32 *>(media.data()), media.size() / 4);
        writeFile(dir + QStringLiteral("/media/clip%1.%2").arg(i).arg(i % 2 ? QStringLiteral("mp4") : QStringLiteral("raw")),
                  media);
    }
}

qint64 treeSize(const QString &dir)
{
    qint64 size = 0;
    QDirIterator it(dir, QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        size += it.fileInfo().size();
    }
    return size;
}

void dropCaches()
{
    ::sync();
    QFile drop(QStringLiteral("/proc/sys/vm/drop_caches"));
    if (drop.open(QIODevice::WriteOnly))
        drop.write("3\n");
}

// "Disk Usage" and "Uncompressed" of compsize's TOTAL line, in bytes.
bool compsize(const QString &dir, qint64 *disk, qint64 *uncompressed)
{
    QByteArray out;
    if (!run(QStringLiteral("compsize"), {QStringLiteral("-b"), dir}, &out))
        return false;
    for (const QByteArray &line : out.split('\n')) {
        const QList<QByteArray> f = line.simplified().split(' ');
        if (f.size() >= 5 && f.at(0) == "TOTAL") {
            *disk = f.at(2).toLongLong();
            *uncompressed = f.at(3).toLongLong();
            return true;
        }
    }
    return false;
}

// Status and savings of the folder's record, read as the pane reads them.
bool record(const QString &store, const QString &folder, int *status, qint64 *savings)
{
    sqlite3 *db = nullptr;
    bool found = false;
    if (sqlite3_open_v2(QFile::encodeName(store).constData(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, 2000);
        sqlite3_stmt *st = nullptr;
        const QByteArray f = folder.toUtf8();
        if (sqlite3_prepare_v2(db, "SELECT ZSTATUS, ZSAVINGS FROM ZHISTORY WHERE ZFOLDER = ?1", -1, &st, nullptr)
            == SQLITE_OK) {
            sqlite3_bind_text(st, 1, f.constData(), int(f.size()), SQLITE_TRANSIENT);
            if (sqlite3_step(st) == SQLITE_ROW) {
                *status = sqlite3_column_int(st, 0);
                *savings = sqlite3_column_int64(st, 1);
                found = true;
            }
            sqlite3_finalize(st);
        }
    }
    sqlite3_close(db);
    return found;
}

} // namespace

int main(int argc, char *argv[])
{
    if (::geteuid() != 0) {
        std::printf("bench-helper-btrfs: SKIP: mounting a btrfs image and running compsize need root\n");
        return 0;
    }
    QTemporaryDir work;
    const QString root = work.path();
    // Everything the helper sees is private to this run: its own home and its own session bus.
    for (const char *sub : {"/home/.local/share", "/home/.local/state", "/home/.config", "/runtime"})
        QDir().mkpath(root + QLatin1String(sub));
    qputenv("HOME", QFile::encodeName(root + QStringLiteral("/home")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(root + QStringLiteral("/home/.local/share")));
    qputenv("XDG_STATE_HOME", QFile::encodeName(root + QStringLiteral("/home/.local/state")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root + QStringLiteral("/home/.config")));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(root + QStringLiteral("/runtime")));
    QDir().mkpath(root + QStringLiteral("/home/.local/share/Vantor"));

    QProcess bus;
    bus.start(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                              QStringLiteral("--print-address=1")});
    if (!bus.waitForReadyRead(10000)) {
        std::printf("bench-helper-btrfs: SKIP: cannot start a session bus\n");
        return 0;
    }
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.readLine().trimmed());
    QCoreApplication app(argc, argv);

    const QString image = root + QStringLiteral("/bench.img");
    const QString mnt = root + QStringLiteral("/mnt");
    QDir().mkpath(mnt);
    QFile img(image);
    if (!img.open(QIODevice::WriteOnly) || !img.resize(1024 * MiB))
        return 1;
    img.close();
    if (!run(QStringLiteral("mkfs.btrfs"), {QStringLiteral("-q"), image})
        || !run(QStringLiteral("mount"), {QStringLiteral("-o"), QStringLiteral("loop"), image, mnt})) {
        std::printf("bench-helper-btrfs: SKIP: cannot mount a btrfs image here\n");
        bus.kill();
        bus.waitForFinished();
        return 0;
    }

    // Each round compresses fresh copies of the corpus, the tool's and the helper's in turn; both
    // run at idle CPU and I/O priority, as the helper does, so other load on the machine slows
    // them alike. The median round counts.
    const int rounds = argc > 1 ? qMax(1, atoi(argv[1])) : 3;
    const QString corpusFolder = mnt + QStringLiteral("/corpus");
    makeCorpus(corpusFolder);
    const qint64 corpus = treeSize(corpusFolder);
    std::printf("corpus: %.1f MB, %d rounds\n", corpus / 1e6, rounds);

    const QString store = root + QStringLiteral("/home/.local/share/Vantor/history.db");
    QProcess helper;
    helper.setProcessChannelMode(QProcess::ForwardedChannels);
    helper.start(QStringLiteral(VANTOR_HELPER_EXECUTABLE), {});
    for (int i = 0; i < 100 && !QFileInfo::exists(store); ++i)
        QThread::msleep(50);

    QList<double> defragTimes, helperTimes;
    int status = 0;
    qint64 savings = 0, disk = 0, uncompressed = 0, defragDisk = 0, defragUncompressed = 0;
    bool measured = true;
    for (int round = 0; round < rounds && measured; ++round) {
        const QString defragFolder = mnt + QStringLiteral("/defrag%1").arg(round);
        const QString helperFolder = mnt + QStringLiteral("/helper%1").arg(round);
        run(QStringLiteral("cp"), {QStringLiteral("-a"), corpusFolder, defragFolder});
        run(QStringLiteral("cp"), {QStringLiteral("-a"), corpusFolder, helperFolder});

        // The file system's own tool, until the data is on disk.
        dropCaches();
        QElapsedTimer timer;
        timer.start();
        run(QStringLiteral("chrt"), {QStringLiteral("--idle"), QStringLiteral("0"), QStringLiteral("ionice"),
                                     QStringLiteral("-c3"), QStringLiteral("btrfs"), QStringLiteral("filesystem"),
                                     QStringLiteral("defragment"), QStringLiteral("-r"), QStringLiteral("-czstd"),
                                     defragFolder});
        ::sync();
        defragTimes.append(timer.nsecsElapsed() / 1e9);

        // The helper, asked as the pane asks, until its record says 100 and the data is on disk.
        dropCaches();
        timer.restart();
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::Folders),
            {{QLatin1String(Notifications::FoldersToAddKey), QStringList{helperFolder}}});
        status = 0;
        while (!(record(store, helperFolder, &status, &savings) && status >= 100) && timer.elapsed() < 600000) {
            QCoreApplication::processEvents();
            QThread::msleep(10);
        }
        ::sync();
        helperTimes.append(timer.nsecsElapsed() / 1e9);
        measured = status >= 100 && compsize(helperFolder, &disk, &uncompressed)
            && compsize(defragFolder, &defragDisk, &defragUncompressed);
        std::printf("round %d: tool %.2f s, helper %.2f s\n", round + 1, defragTimes.last(), helperTimes.last());
        // Keeps the image small; the last round's folders stay for the figures below.
        if (round + 1 < rounds) {
            QDir(defragFolder).removeRecursively();
            QDir(helperFolder).removeRecursively();
        }
    }
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
    QCoreApplication::processEvents();
    if (!helper.waitForFinished(30000))
        helper.kill();
    helper.waitForFinished();
    run(QStringLiteral("umount"), {mnt});
    QFile::remove(image);
    bus.kill();
    bus.waitForFinished();
    if (!measured) {
        std::fprintf(stderr, "bench-helper-btrfs: the helper did not finish (status %d)\n", status);
        return 1;
    }
    std::sort(defragTimes.begin(), defragTimes.end());
    std::sort(helperTimes.begin(), helperTimes.end());
    const double defragSeconds = defragTimes.at(rounds / 2);
    const double helperSeconds = helperTimes.at(rounds / 2);

    const double defragRate = corpus / 1e6 / defragSeconds;
    const double helperRate = corpus / 1e6 / helperSeconds;
    const qint64 real = uncompressed - disk;
    const double difference = real > 0 ? 100.0 * double(savings - real) / double(real) : 0.0;
    std::printf("btrfs defragment -czstd: %.2f s, %.1f MB/s, saved %.1f MB\n", defragSeconds, defragRate,
                (defragUncompressed - defragDisk) / 1e6);
    std::printf("helper: %.2f s, %.1f MB/s (%.2fx), reported %.1f MB saved, compsize %.1f MB\n", helperSeconds,
                helperRate, helperRate / defragRate, savings / 1e6, real / 1e6);
    std::printf("RESULT bench-helper-btrfs %.2f %% ratio=%.2f\n", difference, helperRate / defragRate);
    return 0;
}
