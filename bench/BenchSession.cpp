#include "BenchSession.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <unistd.h>

BenchSession::BenchSession(const char *name)
    : m_name(name)
{
    if (::geteuid() != 0) {
        std::printf("%s: SKIP: mounting a btrfs image needs root\n", m_name);
        return;
    }
    // Everything the helper sees is private to this run: its own home and its own session bus.
    const QString home = root() + QStringLiteral("/home");
    for (const char *sub : {"/.local/share/Vantor", "/.local/state", "/.config", "/.cache"})
        QDir().mkpath(home + QLatin1String(sub));
    QDir().mkpath(root() + QStringLiteral("/runtime"));
    qputenv("HOME", QFile::encodeName(home));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home + QStringLiteral("/.local/share")));
    qputenv("XDG_STATE_HOME", QFile::encodeName(home + QStringLiteral("/.local/state")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QStringLiteral("/.config")));
    qputenv("XDG_CACHE_HOME", QFile::encodeName(home + QStringLiteral("/.cache")));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(root() + QStringLiteral("/runtime")));
    // No system bus: a laptop on battery would pause the helper being measured.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + QFile::encodeName(root() + QStringLiteral("/no-bus")));

    m_bus.start(QStringLiteral("dbus-daemon"),
                {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
    if (!m_bus.waitForReadyRead(10000)) {
        std::printf("%s: SKIP: cannot start a session bus\n", m_name);
        return;
    }
    qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus.readLine().trimmed());
    m_ready = true;
}

BenchSession::~BenchSession()
{
    while (!m_mounts.isEmpty())
        unmount(m_mounts.last());
    if (m_bus.state() != QProcess::NotRunning) {
        m_bus.kill();
        m_bus.waitForFinished();
    }
    std::fflush(stdout);
}

QString BenchSession::store() const
{
    return root() + QStringLiteral("/home/.local/share/Vantor/history.db");
}

QString BenchSession::log() const
{
    return root() + QStringLiteral("/home/.local/state/vantor/VantorHelper.log");
}

bool BenchSession::mountBtrfs(const QString &image, const QString &mountPoint, qint64 size)
{
    QDir().mkpath(mountPoint);
    QFile file(image);
    if (!file.open(QIODevice::WriteOnly) || !file.resize(size)) {
        std::printf("%s: SKIP: cannot make %s\n", m_name, qPrintable(image));
        return false;
    }
    file.close();
    if (!run(QStringLiteral("mkfs.btrfs"), {QStringLiteral("-q"), image})
        || !run(QStringLiteral("mount"), {QStringLiteral("-o"), QStringLiteral("loop"), image, mountPoint})) {
        std::printf("%s: SKIP: cannot mount a btrfs image here\n", m_name);
        return false;
    }
    m_mounts.append(mountPoint);
    return true;
}

void BenchSession::unmount(const QString &mountPoint)
{
    if (!m_mounts.removeAll(mountPoint))
        return;
    // The loop device goes with it: mount -o loop set it to clear itself. Tried once: a mount
    // still in use is told on standard error, not waited for.
    run(QStringLiteral("umount"), {mountPoint});
}

bool BenchSession::run(const QString &program, const QStringList &arguments, QByteArray *output)
{
    QProcess process;
    process.start(program, arguments);
    const bool ok =
        process.waitForFinished(600000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    const QByteArray all = process.readAllStandardOutput();
    if (output)
        *output = all;
    if (!ok)
        std::fprintf(stderr, "%s %s failed: %s\n", qPrintable(program), qPrintable(arguments.join(u' ')),
                     process.readAllStandardError().constData());
    return ok;
}

bool BenchSession::waitFor(const std::function<bool()> &done, int timeoutMs, int pollMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents();
        QThread::msleep(pollMs);
    }
    return true;
}

double BenchSession::bestOfThree(const QString &program, const QStringList &arguments, QByteArray *output)
{
    double best = 1e9;
    for (int i = 0; i < 3; ++i) {
        QElapsedTimer timer;
        timer.start();
        if (!run(program, arguments, output))
            return -1;
        best = std::min(best, timer.nsecsElapsed() / 1e9);
    }
    return best;
}

QByteArray BenchSession::text(qint64 size, QRandomGenerator &random)
{
    static const char *const words[] = {
        "the ",    "space ",       "saved ",       "by ",    "compression ", "folder ",
        "report ", "of ",          "disk\n",       "which ", "figures ",     "and ",
        "notes. ", "int main() {", "return 0;}\n", "zstd ",  "record ",      "status = 100;\n"};
    QByteArray bytes;
    bytes.reserve(size + 16);
    while (bytes.size() < size)
        bytes += words[random.bounded(int(std::size(words)))];
    bytes.truncate(size);
    return bytes;
}

void BenchSession::dropCaches()
{
    ::sync();
    QFile drop(QStringLiteral("/proc/sys/vm/drop_caches"));
    if (drop.open(QIODevice::WriteOnly))
        drop.write("3\n");
}

bool BenchSession::compsize(const QString &dir, qint64 *disk, qint64 *uncompressed)
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

void BenchSession::makeTree(const QString &dir, int files)
{
    QRandomGenerator random(files);
    for (int i = 0; i < files; ++i) {
        const int folder = i / kFilesPerFolder;
        const QString path = dir + QStringLiteral("/%1/%2").arg(folder / 10).arg(folder % 10);
        if (i % kFilesPerFolder == 0)
            QDir().mkpath(path);
        QFile file(path + QStringLiteral("/note%1.txt").arg(i));
        if (file.open(QIODevice::WriteOnly))
            file.write(text(2048 + random.bounded(6 * 1024), random));
    }
    ::sync();
}

bool BenchSession::record(const QString &store, const QString &folder, int *status, qint64 *savings)
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
                if (savings)
                    *savings = sqlite3_column_int64(st, 1);
                found = true;
            }
            sqlite3_finalize(st);
        }
    }
    sqlite3_close(db);
    return found;
}
