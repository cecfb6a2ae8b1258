#include "helper/BtrfsCompressor.h"

#include "common/AliasVolume.h"
#include "helper/FreeSpaceGuard.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

// The kernel's compression type numbers (not in the user-space header).
constexpr __u32 kCompressZstd = 3;
// btrfs compresses in chunks of this size.
constexpr qint64 kChunk = 128 * 1024;

constexpr int kIoprioClassBestEffort = 2;
constexpr int kIoprioClassShift = 13;
constexpr int kIoprioWhoProcess = 1;

} // namespace

bool BtrfsCompressor::isBtrfs(int fd)
{
    struct statfs fs { };
    return ::fstatfs(fd, &fs) == 0 && fs.f_type == BTRFS_SUPER_MAGIC;
}

QString BtrfsCompressor::fileSystemName(const QByteArray &path)
{
    struct stat st { };
    if (::stat(path.constData(), &st) == 0) {
        for (const AliasVolume &volume : AliasVolume::mounted()) {
            if (volume.device == st.st_dev && !volume.fsType.isEmpty())
                return QString::fromUtf8(volume.fsType);
        }
    }
    return QStringLiteral("an unknown file system");
}

bool BtrfsCompressor::setCompressionProperty(int fd)
{
    static const char value[] = "zstd";
    return ::fsetxattr(fd, "btrfs.compression", value, sizeof value - 1, 0) == 0;
}

bool BtrfsCompressor::ensureCompressionProperty(int fd)
{
    char value[8] = {};
    const ssize_t size = ::fgetxattr(fd, "btrfs.compression", value, sizeof value);
    return (size == 4 && qstrncmp(value, "zstd", 4) == 0) || setCompressionProperty(fd);
}

BtrfsCompressor::Result BtrfsCompressor::takeLease(int fd)
{
    if (::fcntl(fd, F_SETLEASE, F_RDLCK) == 0)
        return Result::Compressed;
    return errno == EAGAIN || errno == EBUSY ? Result::InUse : Result::Failed;
}

bool BtrfsCompressor::holdsLease(int fd)
{
    // A writer opening the file breaks the lease.
    return ::fcntl(fd, F_GETLEASE) == F_RDLCK;
}

void BtrfsCompressor::releaseLease(int fd)
{
    ::fcntl(fd, F_SETLEASE, F_UNLCK);
}

BtrfsCompressor::Result BtrfsCompressor::compressPiece(int fd, qint64 start, qint64 length, qint64 *done)
{
    *done = 0;
    const qint64 room = FreeSpaceGuard::room(fd);
    if (room < FreeSpaceGuard::kMinRoom)
        return Result::NoSpace;
    const bool low = room < FreeSpaceGuard::kLowRoom;
    if (low)
        length = qMin(length, qMax(room / 4 / kChunk * kChunk, kChunk));
    struct btrfs_ioctl_defrag_range_args args { };
    args.start = __u64(start);
    args.len = __u64(length);
    args.flags = BTRFS_DEFRAG_RANGE_COMPRESS | BTRFS_DEFRAG_RANGE_START_IO;
    args.compress_type = kCompressZstd;
    const bool ok = ::ioctl(fd, BTRFS_IOC_DEFRAG_RANGE, &args) == 0;
    const int error = errno;
    // Committed, the replaced extents are free for the next piece.
    if (low)
        ::syncfs(fd);
    if (!ok) {
        errno = error;
        return error == ENOSPC ? Result::NoSpace : Result::Failed;
    }
    *done = length;
    return Result::Compressed;
}

BtrfsCompressor::Result BtrfsCompressor::writeOutPiece(int fd, qint64 start, qint64 length, qint64 *done)
{
    *done = 0;
    if (FreeSpaceGuard::room(fd) < FreeSpaceGuard::kMinRoom)
        return Result::NoSpace;
    if (::sync_file_range(fd, start, length,
                          SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER)
        != 0)
        return errno == ENOSPC ? Result::NoSpace : Result::Failed;
    *done = length;
    return Result::Compressed;
}

void BtrfsCompressor::waitWrittenOut(int fd)
{
    // A mapping asked with the sync flag waits for the file's writes to finish, compressed
    // ones included; with no room for extents it only counts them.
    struct fiemap map { };
    map.fm_length = FIEMAP_MAX_OFFSET;
    map.fm_flags = FIEMAP_FLAG_SYNC;
    ::ioctl(fd, FS_IOC_FIEMAP, &map);
}

void BtrfsCompressor::lowerThreadPriority()
{
    // With who = process and id 0 these act on the calling thread only.
    ::syscall(SYS_ioprio_set, kIoprioWhoProcess, 0, (kIoprioClassBestEffort << kIoprioClassShift) | 7);
    struct sched_param param { };
    ::sched_setscheduler(0, SCHED_IDLE, &param);
    ::setpriority(PRIO_PROCESS, pid_t(::gettid()), 19);
}
