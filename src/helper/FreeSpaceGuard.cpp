#include "helper/FreeSpaceGuard.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr qint64 MiB = 1024 * 1024;

} // namespace

FreeSpaceGuard::FreeSpaceGuard(QObject *parent)
    : QObject(parent)
{
    m_timer.setInterval(kPollMs);
    connect(&m_timer, &QTimer::timeout, this, &FreeSpaceGuard::poll);
}

qint64 FreeSpaceGuard::margin(int fd)
{
    struct statvfs fs { };
    if (::fstatvfs(fd, &fs) != 0)
        return 0;
    const qint64 size = qint64(fs.f_blocks) * qint64(fs.f_frsize);
    return qBound(4 * MiB, size / 100, 512 * MiB);
}

qint64 FreeSpaceGuard::room(int fd)
{
    struct statvfs fs { };
    if (::fstatvfs(fd, &fs) != 0)
        return 0;
    return qint64(fs.f_bavail) * qint64(fs.f_frsize) - margin(fd);
}

void FreeSpaceGuard::wait(qint64 id, const QByteArray &folder)
{
    m_waiting.insert(id, folder);
    if (!m_timer.isActive())
        m_timer.start();
}

void FreeSpaceGuard::forget(qint64 id)
{
    m_waiting.remove(id);
    if (m_waiting.isEmpty())
        m_timer.stop();
}

void FreeSpaceGuard::poll()
{
    const QHash<qint64, QByteArray> waiting = m_waiting;
    for (auto it = waiting.cbegin(); it != waiting.cend(); ++it) {
        const int fd = ::open(it.value().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0)
            continue;
        const qint64 free = room(fd);
        ::close(fd);
        if (free >= kMinRoom) {
            forget(it.key());
            Q_EMIT roomAgain(it.key());
        }
    }
}
