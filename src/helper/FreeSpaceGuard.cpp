#include "helper/FreeSpaceGuard.h"

#include <sys/statvfs.h>

namespace {

constexpr qint64 MiB = 1024 * 1024;

} // namespace

qint64 FreeSpaceGuard::room(int fd)
{
    struct statvfs fs { };
    if (::fstatvfs(fd, &fs) != 0)
        return 0;
    const qint64 size = qint64(fs.f_blocks) * qint64(fs.f_frsize);
    const qint64 margin = qBound(4 * MiB, size / 100, 512 * MiB);
    return qint64(fs.f_bavail) * qint64(fs.f_frsize) - margin;
}
