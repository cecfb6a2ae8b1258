// The helper on trees of many small files on a loop-mounted btrfs: for 20,000 and 200,000 files
// in proportionally many folders, the first pass; a rescan of the unchanged, compressed tree
// (a fresh start, warm page cache) next to "find DIR -type f | wc -l" on the same tree, both at
// idle priority as the helper works; the
// helper's peak resident memory; and the time from moving a file in to finding it compressed.
// Then the CPU time of 60 s of watching an unchanged tree of 50,000 files.
// Needs root (mounting); says so and stops where that is not possible.

#include "BenchSession.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QThread>

#include <cstdio>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int kFilesPerFolder = BenchSession::kFilesPerFolder;

// Whether every extent of the file is stored compressed, as FIEMAP tells.
bool isCompressed(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    alignas(struct fiemap) char buffer[sizeof(struct fiemap) + 64 * sizeof(struct fiemap_extent)] = {};
    auto *map = reinterpret_cast<struct fiemap *>(buffer);
    map->fm_length = FIEMAP_MAX_OFFSET;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = 64;
    bool compressed = ::ioctl(fd, FS_IOC_FIEMAP, map) == 0 && map->fm_mapped_extents > 0;
    for (unsigned i = 0; compressed && i < map->fm_mapped_extents; ++i)
        compressed = map->fm_extents[i].fe_flags & FIEMAP_EXTENT_ENCODED;
    ::close(fd);
    return compressed;
}

qint64 statusField(qint64 pid, const char *field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).simplified().split(' ').value(0).toLongLong();
    }
    return -1;
}

// User and system CPU time of a process, in seconds.
double cpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toLongLong() + fields.value(12).toLongLong()) / double(::sysconf(_SC_CLK_TCK));
}

class Helper
{
public:
    explicit Helper(const QString &log)
        : m_log(log)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedChannels);
        m_process.start(QStringLiteral(VANTOR_HELPER_EXECUTABLE), {});
        m_process.waitForStarted();
        // Heard from only once it listens: its log says so once it has taken its bus name.
        const QByteArray started = ' ' + QByteArray::number(m_process.processId()) + " started, version";
        for (int i = 0; i < 1000 && !read().contains(started); ++i)
            QThread::msleep(10);
    }
    QByteArray read() const { return readLog(m_log); }
    static QByteArray readLog(const QString &log)
    {
        QFile file(log);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    ~Helper()
    {
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::HelperShouldQuit));
        if (!m_process.waitForFinished(60000))
            m_process.kill();
    }
    qint64 pid() const { return m_process.processId(); }
    // Seconds from this helper's start, as its log tells, to its summary of a pass over folder:
    // the rescan alone, without the start of the process.
    double passSeconds(const QString &folder) const
    {
        const QList<QByteArray> lines = read().split('\n');
        const QByteArray pid = ' ' + QByteArray::number(m_process.processId()) + ' ';
        const QByteArray summary = "\"" + QFile::encodeName(folder) + "\": ";
        QDateTime start;
        for (const QByteArray &line : lines) {
            if (!line.contains(pid))
                continue;
            const QDateTime at =
                QDateTime::fromString(QString::fromLatin1(line.left(line.indexOf(' '))), Qt::ISODateWithMs);
            if (line.contains(" started, version"))
                start = at;
            else if (line.contains(summary) && start.isValid())
                return start.msecsTo(at) / 1000.0;
        }
        return -1;
    }
    // Lines of the log naming folder in a summary of a whole pass.
    qsizetype passes(const QString &folder) const { return read().count("\"" + QFile::encodeName(folder) + "\": "); }

private:
    QString m_log;
    QProcess m_process;
};

// At the helper's own idle priority, so other load on the machine slows both alike.
double findSeconds(const QString &dir)
{
    return BenchSession::bestOfThree(QStringLiteral("chrt"),
                                     {QStringLiteral("--idle"), QStringLiteral("0"), QStringLiteral("ionice"),
                                      QStringLiteral("-c3"), QStringLiteral("sh"), QStringLiteral("-c"),
                                      QStringLiteral("find \"$0\" -type f | wc -l"), dir});
}

} // namespace

int main(int argc, char *argv[])
{
    BenchSession session("bench-helper-scale");
    if (!session.isReady())
        return 0;
    QCoreApplication app(argc, argv);

    const QString mnt = session.root() + QStringLiteral("/mnt");
    if (!session.mountBtrfs(session.root() + QStringLiteral("/scale.img"), mnt, qint64(6) << 30))
        return 0;
    const QString store = session.store();
    const QString log = session.log();
    const QList<int> sizes = argc > 1 ? QList<int>{atoi(argv[1])} : QList<int>{20000, 200000};
    double ratio = 0;
    for (const int files : sizes) {
        const QString folder = mnt + QStringLiteral("/tree%1").arg(files);
        BenchSession::makeTree(folder, files);
        qint64 peak = 0;
        double firstPass = 0, rescan = 0, moveIn = -1;
        {
            Helper helper(log);
            QElapsedTimer timer;
            timer.start();
            DistributedNotificationCenter::defaultCenter()->postNotificationName(
                QLatin1String(Notifications::Folders),
                {{QLatin1String(Notifications::FoldersToAddKey), QStringList{folder}}});
            int status = 0;
            BenchSession::waitFor(
                [&] {
                    return helper.passes(folder) > 0 && BenchSession::record(store, folder, &status) && status == 100;
                },
                1800000);
            firstPass = timer.nsecsElapsed() / 1e9;
            peak = statusField(helper.pid(), "VmHWM:");
        }
        {
            // A fresh start looks at the whole tree again: what it already knows it recognises. The
            // tree is read once first, so the rescan meets the same warm cache find does.
            findSeconds(folder);
            QElapsedTimer timer;
            timer.start();
            Helper helper(log);
            const qsizetype before = helper.passes(folder);
            BenchSession::waitFor([&] { return helper.passes(folder) > before; }, 600000);
            rescan = helper.passSeconds(folder);
            // A file moved in from elsewhere on the same file system keeps its extents as they are.
            QRandomGenerator random(1);
            const QString outside = mnt + QStringLiteral("/moved%1.txt").arg(files);
            QFile file(outside);
            if (file.open(QIODevice::WriteOnly))
                file.write(BenchSession::text(1 << 20, random));
            file.close();
            ::sync();
            const QString inside = folder + QStringLiteral("/0/0/moved.txt");
            timer.restart();
            QFile::rename(outside, inside);
            if (BenchSession::waitFor([&] { return isCompressed(inside); }, 120000))
                moveIn = timer.nsecsElapsed() / 1e9;
            peak = std::max(peak, statusField(helper.pid(), "VmHWM:"));
            // Off the list, so the next size's rescan times its own tree alone.
            DistributedNotificationCenter::defaultCenter()->postNotificationName(
                QLatin1String(Notifications::Folders),
                {{QLatin1String(Notifications::FoldersToRemoveKey), QStringList{folder}}});
        }
        const double find = findSeconds(folder);
        ratio = rescan / find;
        std::printf("%d files in %d folders: first pass %.1f s; rescan %.2f s, find %.2f s (ratio %.2f); "
                    "peak RSS %.1f MB; moved in to compressed %.1f s\n",
                    files, files / kFilesPerFolder, firstPass, rescan, find, ratio, peak / 1024.0, moveIn);
        std::fflush(stdout);
    }
    if (argc <= 1) {
        // Watching an unchanged tree costs nothing: no polling.
        const QString folder = mnt + QStringLiteral("/idle");
        BenchSession::makeTree(folder, 50000);
        Helper helper(log);
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::Folders),
            {{QLatin1String(Notifications::FoldersToAddKey), QStringList{folder}}});
        int status = 0;
        BenchSession::waitFor(
            [&] { return helper.passes(folder) > 0 && BenchSession::record(store, folder, &status) && status == 100; },
            1800000);
        BenchSession::waitFor([] { return false; }, 5000);
        const double before = cpuSeconds(helper.pid());
        BenchSession::waitFor([] { return false; }, 60000);
        std::printf("idle: %.2f CPU seconds in 60 s of watching 50,000 unchanged files\n",
                    cpuSeconds(helper.pid()) - before);
    }
    if (qEnvironmentVariableIsSet("BENCH_SHOW_LOG"))
        std::printf("%s", Helper::readLog(log).constData());
    session.unmount(mnt);
    std::printf("RESULT bench-helper-scale-rescan %.2f ratio ratio=%.2f\n", ratio, ratio);
    return 0;
}
