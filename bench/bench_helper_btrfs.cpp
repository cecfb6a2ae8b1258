// The helper compressing a mixed corpus on a loop-mounted btrfs, against
// "btrfs filesystem defragment -r -czstd" on a copy of the same corpus: throughput of both,
// and the savings the helper reports against what compsize measures on disk for its folder.
// Needs root (mounting, compsize); says so and stops where that is not possible.

#include "BenchSession.h"
#include "platform/DistributedNotificationCenter.h"
#include "common/Notifications.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr qint64 MiB = 1024 * 1024;

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

QByteArray generatedMedia(qint64 size, QRandomGenerator &random)
{
    QByteArray media(size, Qt::Uninitialized);
    random.fillRange(reinterpret_cast<quint32 *>(media.data()), size / 4);
    return media;
}

// Text, source code, binaries and already-compressed media, about 160 MB.
void makeCorpus(const QString &dir)
{
    copyTree(QStringLiteral("/usr/include"), dir + QStringLiteral("/source"), 45 * MiB);
    copyTree(QStringLiteral("/usr/lib/x86_64-linux-gnu"), dir + QStringLiteral("/binaries"), 45 * MiB,
             {QStringLiteral("*.so*")});
    copyTree(QStringLiteral("/usr/share/doc"), dir + QStringLiteral("/text/doc"), 5 * MiB,
             {QStringLiteral("copyright")});
    QRandomGenerator random(7);
    for (int i = 0; i < 20; ++i)
        writeFile(dir + QStringLiteral("/text/report%1.txt").arg(i), BenchSession::text(MiB + i * 37 * 1024, random));
    for (int i = 0; i < 10; ++i)
        writeFile(
            dir + QStringLiteral("/media/clip%1.%2").arg(i).arg(i % 2 ? QStringLiteral("mp4") : QStringLiteral("raw")),
            generatedMedia(3 * MiB + i * 4096 + 123, random));
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

// Asks the helper, as the pane asks, to compress folder; waits until its record says 100 and
// the data is on disk. False when it did not get there. The store is read only after the
// helper's "vantorSavingsChanged", posted after each of its writes: polling it would be work
// beside the helper, which it would give way to.
bool compressWithHelper(const QString &store, const QString &folder, qint64 *savings, qint64 timeoutMs = 600000)
{
    QElapsedTimer timer;
    timer.start();
    QEventLoop loop;
    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(&timeout, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject observer;
    DistributedNotificationCenter::defaultCenter()->addObserver(&observer, QLatin1String(Notifications::SavingsChanged),
                                                                [&](const DistributedNotification &) { loop.quit(); });
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::Folders), {{QLatin1String(Notifications::FoldersToAddKey), QStringList{folder}}});
    int status = 0;
    while (!(BenchSession::record(store, folder, &status, savings) && status >= 100) && timer.elapsed() < timeoutMs) {
        // A notice wakes this at once; the timeout only covers one that never comes.
        timeout.start(1000);
        loop.exec();
    }
    ::sync();
    return status >= 100;
}

// A figure of "btrfs filesystem usage -b" ("Used:", "Free (statfs, df):"), all writes committed.
qint64 usage(const QString &mountPoint, const QByteArray &field)
{
    ::sync();
    QByteArray out;
    BenchSession::run(QStringLiteral("btrfs"),
                      {QStringLiteral("filesystem"), QStringLiteral("usage"), QStringLiteral("-b"), mountPoint}, &out);
    for (const QByteArray &line : out.split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (trimmed.startsWith(field))
            return trimmed.mid(field.size()).simplified().split(' ').value(0).toLongLong();
    }
    return -1;
}

// CPU seconds the process has used, all its threads, user and system.
double cpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray line = stat.readAll();
    // Fields after the command name, which may hold spaces: utime and stime are the 12th and 13th.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(::sysconf(_SC_CLK_TCK));
}

} // namespace

int main(int argc, char *argv[])
{
    BenchSession session("bench-helper-btrfs");
    if (!session.isReady())
        return 0;
    QCoreApplication app(argc, argv);

    const QString root = session.root();
    const QString mnt = root + QStringLiteral("/mnt");
    if (!session.mountBtrfs(root + QStringLiteral("/bench.img"), mnt, 1024 * MiB))
        return 0;

    // Each round compresses fresh copies of the corpus, the tool's and the helper's in turn; both
    // run at idle CPU and I/O priority, as the helper does, so other load on the machine slows
    // them alike. The median round counts.
    const int rounds = argc > 1 ? qMax(1, atoi(argv[1])) : 3;
    const QString corpusFolder = mnt + QStringLiteral("/corpus");
    makeCorpus(corpusFolder);
    const qint64 corpus = treeSize(corpusFolder);
    std::printf("corpus: %.1f MB, %d rounds\n", corpus / 1e6, rounds);

    const QString store = session.store();
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
        // Copies of their own: cp reflinks by default, and shared data is left alone.
        for (const QString &copy : {defragFolder, helperFolder})
            BenchSession::run(QStringLiteral("cp"),
                              {QStringLiteral("-a"), QStringLiteral("--reflink=never"), corpusFolder, copy});

        // The file system's own tool, until the data is on disk.
        BenchSession::dropCaches();
        QElapsedTimer timer;
        timer.start();
        BenchSession::run(QStringLiteral("chrt"),
                          {QStringLiteral("--idle"), QStringLiteral("0"), QStringLiteral("ionice"),
                           QStringLiteral("-c3"), QStringLiteral("btrfs"), QStringLiteral("filesystem"),
                           QStringLiteral("defragment"), QStringLiteral("-r"), QStringLiteral("-czstd"), defragFolder});
        ::sync();
        defragTimes.append(timer.nsecsElapsed() / 1e9);

        // The helper, asked as the pane asks, until its record says 100 and the data is on disk.
        BenchSession::dropCaches();
        timer.restart();
        status = compressWithHelper(store, helperFolder, &savings) ? 100 : 0;
        helperTimes.append(timer.nsecsElapsed() / 1e9);
        measured = status >= 100 && BenchSession::compsize(helperFolder, &disk, &uncompressed)
            && BenchSession::compsize(defragFolder, &defragDisk, &defragUncompressed);
        std::printf("round %d: tool %.2f s, helper %.2f s\n", round + 1, defragTimes.last(), helperTimes.last());
        // Keeps the image small; the last round's folders stay for the figures below.
        if (round + 1 < rounds) {
            QDir(defragFolder).removeRecursively();
            QDir(helperFolder).removeRecursively();
        }
    }
    QDir(mnt + QStringLiteral("/defrag%1").arg(rounds - 1)).removeRecursively();
    QDir(mnt + QStringLiteral("/helper%1").arg(rounds - 1)).removeRecursively();

    // The corpus in a subvolume with a read-only snapshot, as Snapper and Timeshift keep them:
    // the file system's used space must not grow, and what is reported must have been freed.
    qint64 snapshotSavings = 0, usedBefore = 0, usedAfter = 0;
    if (measured) {
        const QString volume = mnt + QStringLiteral("/snapshotted");
        const QString snapshot = mnt + QStringLiteral("/snapshot");
        BenchSession::run(QStringLiteral("btrfs"), {QStringLiteral("subvolume"), QStringLiteral("create"), volume});
        BenchSession::run(QStringLiteral("cp"),
                          {QStringLiteral("-a"), QStringLiteral("--reflink=never"), corpusFolder,
                           volume + QStringLiteral("/corpus")});
        BenchSession::run(
            QStringLiteral("btrfs"),
            {QStringLiteral("subvolume"), QStringLiteral("snapshot"), QStringLiteral("-r"), volume, snapshot});
        usedBefore = usage(mnt, "Used:");
        measured = compressWithHelper(store, volume + QStringLiteral("/corpus"), &snapshotSavings);
        usedAfter = usage(mnt, "Used:");
        for (const QString &subvolume : {snapshot, volume})
            BenchSession::run(QStringLiteral("btrfs"),
                              {QStringLiteral("subvolume"), QStringLiteral("delete"), subvolume});
    }
    // CPU the helper spends per GB of media, which does not shrink, and of text.
    double cpuPerGB[2] = {};
    QRandomGenerator random(11);
    for (int kind = 0; kind < 2 && measured; ++kind) {
        const QString folder = mnt + (kind == 0 ? QStringLiteral("/media") : QStringLiteral("/text"));
        for (int i = 0; i < 64; ++i)
            writeFile(folder + QStringLiteral("/file%1").arg(i),
                      kind == 0 ? generatedMedia(4 * MiB, random) : BenchSession::text(4 * MiB, random));
        BenchSession::dropCaches();
        const double before = cpuSeconds(helper.processId());
        qint64 ignored = 0;
        measured = compressWithHelper(store, folder, &ignored);
        cpuPerGB[kind] = (cpuSeconds(helper.processId()) - before) / (64 * 4 * MiB / 1e9);
        QDir(folder).removeRecursively();
    }

    // A nearly full file system: 120 MB of text and 8 MB free.
    qint64 freeBefore = 0, freeAfter = 0, fullSavings = 0;
    const QString fullImage = root + QStringLiteral("/full.img");
    const QString fullMnt = root + QStringLiteral("/full");
    if (measured) {
        measured = session.mountBtrfs(fullImage, fullMnt, 320 * MiB);
        for (int i = 0; i < 30 && measured; ++i)
            writeFile(fullMnt + QStringLiteral("/Documents/report%1.txt").arg(i), BenchSession::text(4 * MiB, random));
        const int fd = ::open(QFile::encodeName(fullMnt + QStringLiteral("/filler")).constData(),
                              O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        measured = measured && fd >= 0 && ::posix_fallocate(fd, 0, usage(fullMnt, "Free (statfs, df):") - 8 * MiB) == 0;
        if (fd >= 0)
            ::close(fd);
        freeBefore = usage(fullMnt, "Free (statfs, df):");
        measured = measured && compressWithHelper(store, fullMnt + QStringLiteral("/Documents"), &fullSavings);
        freeAfter = usage(fullMnt, "Free (statfs, df):");
    }

    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
    QCoreApplication::processEvents();
    if (!helper.waitForFinished(30000))
        helper.kill();
    helper.waitForFinished();
    // Only now: the helper holds every folder it was given open until it quits.
    session.unmount(fullMnt);
    session.unmount(mnt);
    if (!measured) {
        std::fprintf(stderr, "bench-helper-btrfs: the helper did not finish a round (status %d)\n", status);
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
    std::printf("snapshot round: used space %+.2f MB (goal <= 0), reported %.1f MB saved, really freed %.1f MB\n",
                (usedAfter - usedBefore) / 1e6, snapshotSavings / 1e6, (usedBefore - usedAfter) / 1e6);
    std::printf(
        "nearly full round: free space %.1f MB before, %.1f MB after (goal: more after), reported %.1f MB saved\n",
        freeBefore / 1e6, freeAfter / 1e6, fullSavings / 1e6);
    std::printf("helper CPU: media %.2f s/GB, text %.2f s/GB (the helper's own threads; btrfs compresses in kernel "
                "workers)\n",
                cpuPerGB[0], cpuPerGB[1]);
    std::printf("RESULT bench-helper-btrfs %.2f %% ratio=%.2f\n", difference, helperRate / defragRate);
    return 0;
}
