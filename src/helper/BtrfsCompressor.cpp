#include "helper/BtrfsCompressor.h"

#include "common/AliasVolume.h"
#include "helper/FreeSpaceGuard.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/btrfs.h>
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
// One defragment call rewrites at most this much, so a broken lease is noticed soon.
constexpr __u64 kStep = 32 * 1024 * 1024;
// btrfs compresses in chunks of this size.
constexpr __u64 kChunk = 128 * 1024;

constexpr int kIoprioClassIdle = 3;
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

BtrfsCompressor::Result BtrfsCompressor::compressRanges(int fd, const QList<ExtentMap::Range> &ranges,
                                                        const std::atomic<bool> &cancel)
{
    // A read lease can be taken only while nobody has the file open for writing.
    if (::fcntl(fd, F_SETLEASE, F_RDLCK) != 0)
        return errno == EAGAIN || errno == EBUSY ? Result::InUse : Result::Failed;
    setCompressionProperty(fd);

    Result result = Result::Compressed;
    int error = 0;
    for (const ExtentMap::Range &range : ranges) {
        const __u64 end = __u64(range.start + range.length);
        for (__u64 start = __u64(range.start); result == Result::Compressed && start < end;) {
            // A writer opening the file breaks the lease: give way to it.
            if (cancel.load() || ::fcntl(fd, F_GETLEASE) != F_RDLCK) {
                result = Result::InUse;
                break;
            }
            const qint64 room = FreeSpaceGuard::room(fd);
            if (room < FreeSpaceGuard::kMinRoom) {
                result = Result::NoSpace;
                break;
            }
            const bool low = room < FreeSpaceGuard::kLowRoom;
            const __u64 step = low ? qMax(__u64(room / 4) / kChunk * kChunk, kChunk) : kStep;
            struct btrfs_ioctl_defrag_range_args args { };
            args.start = start;
            args.len = qMin(step, end - start);
            args.flags = BTRFS_DEFRAG_RANGE_COMPRESS | BTRFS_DEFRAG_RANGE_START_IO;
            args.compress_type = kCompressZstd;
            if (::ioctl(fd, BTRFS_IOC_DEFRAG_RANGE, &args) != 0) {
                error = errno;
                result = error == ENOSPC ? Result::NoSpace : Result::Failed;
            }
            // Committed, the replaced extents are free for the next step.
            if (low)
                ::syncfs(fd);
            start += args.len;
        }
        if (result != Result::Compressed)
            break;
    }
    ::fcntl(fd, F_SETLEASE, F_UNLCK);
    errno = error;
    return result;
}

void BtrfsCompressor::lowerThreadPriority()
{
    // With who = process and id 0 these act on the calling thread only.
    ::syscall(SYS_ioprio_set, kIoprioWhoProcess, 0, kIoprioClassIdle << kIoprioClassShift);
    struct sched_param param { };
    ::sched_setscheduler(0, SCHED_IDLE, &param);
    ::setpriority(PRIO_PROCESS, pid_t(::gettid()), 19);
}
