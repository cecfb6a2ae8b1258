#include "common/AliasVolume.h"

#include <QFile>

#include <blkid/blkid.h>
#include <fcntl.h>
#include <unistd.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdlib>

namespace {

bool isBelow(const QByteArray &path, const QByteArray &mountPoint)
{
    if (mountPoint == "/")
        return path.startsWith('/');
    return path == mountPoint || (path.startsWith(mountPoint) && path.at(mountPoint.size()) == '/');
}

QByteArray blkidTag(const QByteArray &device, const char *tag)
{
    if (!device.startsWith("/dev/"))
        return {};
    char *value = blkid_get_tag_value(nullptr, tag, device.constData());
    QByteArray result(value ? value : "");
    std::free(value);
    return result;
}

} // namespace

QList<AliasVolume> AliasVolume::mounted()
{
    QList<AliasVolume> mounts;
    QFile file(QStringLiteral("/proc/self/mountinfo"));
    if (!file.open(QIODevice::ReadOnly))
        return mounts;
    // Read whole: procfs files report no size, so line reads are the safe way.
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> f = line.split(' ');
        const qsizetype dash = f.indexOf("-");
        if (f.size() < 7 || dash < 6 || dash + 3 >= f.size() + 1)
            continue;
        AliasVolume v;
        const QList<QByteArray> majorMinor = f[2].split(':');
        if (majorMinor.size() != 2)
            continue;
        v.device = makedev(majorMinor[0].toUInt(), majorMinor[1].toUInt());
        v.mountPoint = unescape(f[4]);
        v.fsType = f.value(dash + 1);
        v.source = unescape(f.value(dash + 2));
        v.superOptions = f.value(dash + 3);
        mounts.append(v);
    }
    return mounts;
}

std::optional<AliasVolume> AliasVolume::containing(const QByteArray &path, const QList<AliasVolume> &mounts)
{
    std::optional<AliasVolume> best;
    for (const AliasVolume &v : mounts) {
        if (isBelow(path, v.mountPoint) && (!best || v.mountPoint.size() >= best->mountPoint.size()))
            best = v;
    }
    return best;
}

QByteArray AliasVolume::uuid() const
{
    // btrfs tells any user its UUID; libblkid must read the device, which only root may, and
    // otherwise answers from its cache, which may describe whatever the device held before.
    if (fsType == "btrfs") {
        struct btrfs_ioctl_fs_info_args info = {};
        const int fd = ::open(mountPoint.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool ok = fd >= 0 && ::ioctl(fd, BTRFS_IOC_FS_INFO, &info) == 0;
        if (fd >= 0)
            ::close(fd);
        if (ok) {
            const QByteArray hex = QByteArray(reinterpret_cast<const char *>(info.fsid), BTRFS_FSID_SIZE).toHex();
            return hex.left(8) + '-' + hex.mid(8, 4) + '-' + hex.mid(12, 4) + '-' + hex.mid(16, 4) + '-' + hex.mid(20);
        }
    }
    return blkidTag(source, "UUID");
}

QByteArray AliasVolume::name() const
{
    const QByteArray label = blkidTag(source, "LABEL");
    return label.isEmpty() ? mountPoint : label;
}

bool AliasVolume::isAutomounted(const QList<AliasVolume> &mounts) const
{
    // systemd and autofs leave an autofs trigger mount beneath an automounted file system.
    for (const AliasVolume &v : mounts) {
        if (v.fsType == "autofs" && v.mountPoint == mountPoint)
            return true;
    }
    return false;
}

bool AliasVolume::isEjectable() const
{
    if (!source.startsWith("/dev/"))
        return false;
    struct stat st = {};
    if (::stat(source.constData(), &st) != 0 || !S_ISBLK(st.st_mode))
        return false;
    const QString sys = QStringLiteral("/sys/dev/block/%1:%2").arg(major(st.st_rdev)).arg(minor(st.st_rdev));
    // A partition carries the flag on its whole disk, one level up.
    for (const QString &candidate : {sys + QStringLiteral("/removable"), sys + QStringLiteral("/../removable")}) {
        QFile flag(candidate);
        if (flag.open(QIODevice::ReadOnly))
            return flag.readAll().trimmed() == "1";
    }
    return false;
}

bool AliasVolume::hasPersistentFileIds() const
{
    // Inode numbers that survive unmounting: kept on disk by these file systems; made up at
    // mount time (FAT, exFAT, network and memory file systems, overlays) elsewhere.
    static const QList<QByteArray> persistent = {"ext2",     "ext3", "ext4",   "xfs",      "btrfs", "f2fs",   "jfs",
                                                 "reiserfs", "zfs",  "nilfs2", "bcachefs", "ntfs3", "hfsplus"};
    return persistent.contains(fsType);
}

quint64 AliasVolume::btrfsSubvolumeId(int fd)
{
    // The unprivileged form of the lookup: tree 0, the subvolume's first free object id.
    // O_PATH descriptors take no ioctls, so the item is opened again for reading.
    const QByteArray self = "/proc/self/fd/" + QByteArray::number(fd);
    const int readable = ::open(self.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (readable < 0)
        return 0;
    btrfs_ioctl_ino_lookup_args args = {};
    args.treeid = 0;
    args.objectid = BTRFS_FIRST_FREE_OBJECTID;
    const bool ok = ::ioctl(readable, BTRFS_IOC_INO_LOOKUP, &args) == 0;
    ::close(readable);
    return ok ? args.treeid : 0;
}

QByteArray AliasVolume::unescape(const QByteArray &field)
{
    QByteArray out;
    out.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int c = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok && c < 256) {
                out.append(char(c));
                i += 3;
                continue;
            }
        }
        out.append(field[i]);
    }
    return out;
}
