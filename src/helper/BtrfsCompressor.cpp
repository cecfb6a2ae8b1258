#include "helper/BtrfsCompressor.h"

#include "common/AliasVolume.h"

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

#include <memory>

namespace {

// The kernel's compression type numbers (not in the user-space header).
constexpr __u32 kCompressZstd = 3;
// One defragment call rewrites at most this much, so a broken lease is noticed soon.
constexpr __u64 kStep = 32 * 1024 * 1024;

constexpr int kIoprioClassIdle = 3;
constexpr int kIoprioClassShift = 13;
constexpr int kIoprioWhoProcess = 1;

} // namespace

bool BtrfsCompressor::isBtrfs(int fd)
{
    struct statfs fs {};
    return ::fstatfs(fd, &fs) == 0 && fs.f_type == BTRFS_SUPER_MAGIC;
}

QString BtrfsCompressor::fileSystemName(const QByteArray &path)
{
    struct stat st {};
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

bool BtrfsCompressor::isCompressed(int fd)
{
    constexpr unsigned kExtents = 64;
    const size_t size = sizeof(struct fiemap) + kExtents * sizeof(struct fiemap_extent);
    std::unique_ptr<char[]> buffer(new char[size]);
    __u64 start = 0;
    bool any = false;
    for (;;) {
        std::fill(buffer.get(), buffer.get() + size, 0);
        auto *map = reinterpret_cast<struct fiemap *>(buffer.get());
        map->fm_start = start;
        map->fm_length = FIEMAP_MAX_OFFSET;
        map->fm_extent_count = kExtents;
        if (::ioctl(fd, FS_IOC_FIEMAP, map) != 0 || map->fm_mapped_extents == 0)
            return any;
        for (unsigned i = 0; i < map->fm_mapped_extents; ++i) {
            const struct fiemap_extent &extent = map->fm_extents[i];
            if (!(extent.fe_flags & (FIEMAP_EXTENT_ENCODED | FIEMAP_EXTENT_DATA_INLINE)))
                return false;
            any = true;
            if (extent.fe_flags & FIEMAP_EXTENT_LAST)
                return true;
            start = extent.fe_logical + extent.fe_length;
        }
    }
}

BtrfsCompressor::Result BtrfsCompressor::compressFile(int fd, const std::atomic<bool> &cancel)
{
    // A read lease can be taken only while nobody has the file open for writing.
    if (::fcntl(fd, F_SETLEASE, F_RDLCK) != 0)
        return errno == EAGAIN || errno == EBUSY ? Result::InUse : Result::Failed;
    setCompressionProperty(fd);

    struct stat st {};
    Result result = ::fstat(fd, &st) == 0 ? Result::Compressed : Result::Failed;
    for (__u64 start = 0; result == Result::Compressed && start < __u64(st.st_size); start += kStep) {
        // A writer opening the file breaks the lease: give way to it.
        if (cancel.load() || ::fcntl(fd, F_GETLEASE) != F_RDLCK) {
            result = Result::InUse;
            break;
        }
        struct btrfs_ioctl_defrag_range_args args {};
        args.start = start;
        args.len = kStep;
        args.flags = BTRFS_DEFRAG_RANGE_COMPRESS | BTRFS_DEFRAG_RANGE_START_IO;
        args.compress_type = kCompressZstd;
        if (::ioctl(fd, BTRFS_IOC_DEFRAG_RANGE, &args) != 0)
            result = Result::Failed;
    }
    const int saved = errno;
    ::fcntl(fd, F_SETLEASE, F_UNLCK);
    errno = saved;
    return result;
}

void BtrfsCompressor::lowerThreadPriority()
{
    // With who = process and id 0 these act on the calling thread only.
    ::syscall(SYS_ioprio_set, kIoprioWhoProcess, 0, kIoprioClassIdle << kIoprioClassShift);
    struct sched_param param {};
    ::sched_setscheduler(0, SCHED_IDLE, &param);
    ::setpriority(PRIO_PROCESS, pid_t(::gettid()), 19);
}
