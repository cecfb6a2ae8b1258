// What compressing costs the user's foreground program. bench-foreground, busy for half of every
// 10 ms on every core, runs 10 s alone; 10 s beside "btrfs filesystem defragment -r -czstd"
// compressing 600 MB of text; and 10 s beside the helper, asked as the pane asks to compress
// another 600 MB. For each: the foreground's speed and how late its wake-ups came. Then the
// tool's time, the time the helper's folder needed to finish once the foreground stopped, and
// the savings the helper recorded against compsize. RESULT is the p99 lateness beside the
// helper, with the speed beside it against the speed alone as the ratio.
// Needs root (mounting, dropping caches, compsize); says so and stops where that is not possible.

#include "BenchSession.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QHash>
#include <QProcess>
#include <QRandomGenerator>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr qint64 MB = 1000 * 1000;
constexpr int kForegroundSeconds = 10;
constexpr int kFolderTimeoutMs = 30 * 60 * 1000;

// 600 MB of text: 200 files of 3 MB in four folders.
void makeText(const QString &dir)
{
    static const char *const folders[] = {"Documents", "Projects", "Mail", "Notes"};
    QRandomGenerator random(5);
    for (const char *folder : folders)
        QDir().mkpath(dir + u'/' + QLatin1String(folder));
    for (int i = 0; i < 200; ++i) {
        QFile file(dir + QStringLiteral("/%1/notes%2.txt").arg(QLatin1String(folders[i % 4])).arg(i));
        if (file.open(QIODevice::WriteOnly))
            file.write(BenchSession::text(3 * MB, random));
    }
}

// The figures bench-foreground prints on its last line.
struct Foreground {
    bool ok = false;
    double speed = 0; // ticks of work done per second
    double p50 = 0, p99 = 0, max = 0; // lateness, ms
    double workMean = 0, workP50 = 0; // ms one tick's work took
    // Work done per second of the time it wanted, against alone: the ticks it got to, and how
    // long each took (work that takes longer beside another program counts as slower even
    // when it still fits its tick).
    double speedOf(const Foreground &alone) const
    {
        return alone.speed > 0 && workMean > 0 ? speed / alone.speed * alone.workMean / workMean : 0.0;
    }
    qint64 missed = 0;
};

// Starts the foreground for kForegroundSeconds and returns once its ticks are set, so what it
// is measured beside starts with its first tick.
bool startForeground(QProcess &process, qint64 iterations)
{
    process.start(QStringLiteral(VANTOR_BENCH_FOREGROUND),
                  {QStringLiteral("--iterations"), QString::number(iterations), QStringLiteral("--seconds"),
                   QString::number(kForegroundSeconds)});
    if (!process.waitForReadyRead(30000) || process.readLine().trimmed() != "ready") {
        std::fprintf(stderr, "bench-helper-impact: bench-foreground did not start: %s\n",
                     process.readAllStandardError().constData());
        return false;
    }
    return true;
}

// Its figures, once it has ended (waited for here, blocking, when it has not yet).
Foreground finishForeground(QProcess &process)
{
    Foreground f;
    if (process.state() != QProcess::NotRunning)
        process.waitForFinished((kForegroundSeconds + 60) * 1000);
    const QByteArray out = process.readAllStandardOutput().trimmed();
    QHash<QByteArray, QByteArray> fields;
    for (const QByteArray &field : out.mid(out.lastIndexOf('\n') + 1).split(' ')) {
        const qsizetype equals = field.indexOf('=');
        if (equals > 0)
            fields.insert(field.left(equals), field.mid(equals + 1));
    }
    f.ok = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0 && fields.contains("speed");
    f.speed = fields.value("speed").toDouble();
    f.p50 = fields.value("lateness-p50-ms").toDouble();
    f.p99 = fields.value("lateness-p99-ms").toDouble();
    f.max = fields.value("lateness-max-ms").toDouble();
    f.workP50 = fields.value("work-p50-ms").toDouble();
    f.workMean = fields.value("work-mean-ms").toDouble();
    f.missed = fields.value("missed").toLongLong();
    if (!f.ok)
        std::fprintf(stderr, "bench-helper-impact: bench-foreground failed: %s\n",
                     process.readAllStandardError().constData());
    return f;
}

void printSpeed(const char *beside, const Foreground &f, const Foreground &alone)
{
    std::printf("speed %s: %.1f %% of alone (%.1f ticks of work a second, each taking %.2f ms on average)\n", beside,
                100.0 * f.speedOf(alone), f.speed, f.workMean);
}

void printLateness(const char *beside, const Foreground &f)
{
    std::printf("lateness %s: p99 %.3f ms, max %.3f ms (p50 %.3f ms, %lld ticks missed, one tick's work p50 %.2f ms)\n",
                beside, f.p99, f.max, f.p50, static_cast<long long>(f.missed), f.workP50);
}

} // namespace

int main(int argc, char *argv[])
{
    BenchSession session("bench-helper-impact");
    if (!session.isReady())
        return 0;
    QCoreApplication app(argc, argv);

    const QString mnt = session.root() + QStringLiteral("/mnt");
    if (!session.mountBtrfs(session.root() + QStringLiteral("/impact.img"), mnt, qint64(3) << 30))
        return 0;
    const QString store = session.store();

    // The helper runs from the start, idle until phase 3, as it would on the user's machine.
    QProcess helper;
    helper.setProcessChannelMode(QProcess::ForwardedChannels);
    helper.start(QStringLiteral(VANTOR_HELPER_EXECUTABLE), {});
    helper.waitForStarted();
    // Heard from only once it listens: its log says so once it has taken its bus name.
    const QByteArray started = ' ' + QByteArray::number(helper.processId()) + " started, version";
    for (int i = 0; i < 1000; ++i) {
        QFile log(session.log());
        if (log.open(QIODevice::ReadOnly) && log.readAll().contains(started))
            break;
        QThread::msleep(10);
    }

    // Two copies that share nothing: cp would reflink by default, and the helper leaves shared
    // data alone.
    const QString toolFolder = mnt + QStringLiteral("/tool");
    const QString helperFolder = mnt + QStringLiteral("/helper");
    makeText(helperFolder);
    BenchSession::run(QStringLiteral("cp"),
                      {QStringLiteral("-a"), QStringLiteral("--reflink=never"), helperFolder, toolFolder});
    ::sync();

    // The same work on every tick of every phase.
    QByteArray calibration;
    BenchSession::run(QStringLiteral(VANTOR_BENCH_FOREGROUND), {QStringLiteral("--calibrate")}, &calibration);
    const qint64 iterations = calibration.trimmed().mid(qstrlen("iterations=")).toLongLong();
    // A unit is one tick's work: at most 100 units/s a thread, all done in time.
    const long threads = ::sysconf(_SC_NPROCESSORS_ONLN);
    std::printf("foreground: %ld threads, %lld iterations a tick (5 ms of work when calibrated), at most %ld units/s, "
                "%d s a phase\n",
                threads, static_cast<long long>(iterations), threads * 100, kForegroundSeconds);
    std::fflush(stdout);
    bool measured = iterations > 0;

    // Phase 1: alone.
    Foreground alone, besideTool, besideHelper;
    if (measured) {
        BenchSession::dropCaches();
        QProcess foreground;
        measured = startForeground(foreground, iterations);
        alone = finishForeground(foreground);
        measured = measured && alone.ok;
    }

    // Phase 2: beside the tool, run as people run it. It only marks the data to be rewritten;
    // btrfs compresses on writeback, which the sync starts at once rather than up to 30 s
    // later, so that work falls inside the tool's time too.
    double toolSeconds = 0;
    if (measured) {
        BenchSession::dropCaches();
        QProcess foreground, tool;
        measured = startForeground(foreground, iterations);
        QElapsedTimer timer;
        timer.start();
        tool.start(QStringLiteral("btrfs"),
                   {QStringLiteral("filesystem"), QStringLiteral("defragment"), QStringLiteral("-r"),
                    QStringLiteral("-czstd"), toolFolder});
        const bool toolOk =
            tool.waitForFinished(kFolderTimeoutMs) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
        ::sync();
        toolSeconds = timer.nsecsElapsed() / 1e9;
        if (!toolOk)
            std::fprintf(stderr, "bench-helper-impact: btrfs filesystem defragment failed: %s\n",
                         tool.readAllStandardError().constData());
        besideTool = finishForeground(foreground);
        measured = measured && toolOk && besideTool.ok;
    }

    // Phase 3: beside the helper, asked right after the foreground starts. While the
    // foreground runs, this process only waits: the helper's "vantorSavingsChanged" (posted
    // after each write of the store) wakes it to note the time. The store is read once the
    // foreground has stopped, and then after each such notice.
    qint64 lastNotice = -1, stopped = 0, done = -1, savings = 0;
    QElapsedTimer clock;
    QEventLoop loop;
    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(&timeout, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject observer;
    DistributedNotificationCenter::defaultCenter()->addObserver(&observer, QLatin1String(Notifications::SavingsChanged),
                                                                [&](const DistributedNotification &) {
                                                                    lastNotice = clock.elapsed();
                                                                    if (stopped > 0)
                                                                        loop.quit();
                                                                });
    if (measured) {
        BenchSession::dropCaches();
        QProcess foreground;
        measured = startForeground(foreground, iterations);
        clock.start();
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::Folders),
            {{QLatin1String(Notifications::FoldersToAddKey), QStringList{helperFolder}}});
        QObject::connect(&foreground, &QProcess::finished, &loop, &QEventLoop::quit);
        timeout.start((kForegroundSeconds + 60) * 1000);
        if (foreground.state() != QProcess::NotRunning)
            loop.exec();
        stopped = std::max<qint64>(clock.elapsed(), 1);
        besideHelper = finishForeground(foreground);
        measured = measured && besideHelper.ok;

        int status = 0;
        for (bool first = true; clock.elapsed() < kFolderTimeoutMs; first = false) {
            if (BenchSession::record(store, helperFolder, &status, &savings) && status >= 100) {
                // Finished while the foreground ran: the store's last write, the one of
                // status 100, was the last notice.
                done = first && lastNotice >= 0 ? lastNotice : clock.elapsed();
                break;
            }
            // A notice wakes this at once; the timeout only covers one that never comes.
            timeout.start(5000);
            loop.exec();
        }
        if (done < 0)
            std::fprintf(stderr, "bench-helper-impact: the helper did not finish its folder (status %d)\n", status);
        measured = measured && done >= 0;
    }
    ::sync();
    qint64 disk = 0, uncompressed = 0, toolDisk = 0, toolUncompressed = 0;
    measured = measured && BenchSession::compsize(helperFolder, &disk, &uncompressed)
        && BenchSession::compsize(toolFolder, &toolDisk, &toolUncompressed);

    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
    QCoreApplication::processEvents();
    if (!helper.waitForFinished(60000))
        helper.kill();
    helper.waitForFinished();
    // Only now: the helper holds every folder it was given open until it quits.
    session.unmount(mnt);
    if (!measured) {
        std::fprintf(stderr, "bench-helper-impact: not measured\n");
        return 1;
    }

    printSpeed("alone", alone, alone);
    printSpeed("beside btrfs defragment", besideTool, alone);
    printSpeed("beside the helper (goal >= 95 %)", besideHelper, alone);
    printLateness("alone", alone);
    printLateness("beside btrfs defragment", besideTool);
    printLateness("beside the helper (goal p99 <= 2 ms)", besideHelper);
    std::printf("btrfs filesystem defragment -r -czstd: %.2f s until sync returned (compsize: %.1f MB saved)\n",
                toolSeconds, (toolUncompressed - toolDisk) / 1e6);
    std::printf("helper: finished %.2f s after the foreground stopped, %.2f s from request to status 100\n",
                std::max<qint64>(done - stopped, 0) / 1000.0, done / 1000.0);
    const qint64 real = uncompressed - disk;
    std::printf("helper savings: recorded %.1f MB, compsize %.1f MB (%+.2f %%)\n", savings / 1e6, real / 1e6,
                real > 0 ? 100.0 * double(savings - real) / double(real) : 0.0);
    std::printf("RESULT bench-helper-impact %.3f ms ratio=%.3f\n", besideHelper.p99, besideHelper.speedOf(alone));
    return 0;
}
