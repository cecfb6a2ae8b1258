#include "btrfs/FolderWalker.h"

#include "common/VTExclusionRules.h"

#include <QFile>
#include <QMutex>
#include <QWaitCondition>

#include <deque>
#include <thread>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <unistd.h>

FolderWalker::FolderWalker(int rootFd, const QByteArray &rootPath)
    : m_rootFd(rootFd)
    , m_rootPath(rootPath)
{
    struct stat st { };
    if (::fstat(rootFd, &st) == 0)
        m_device = st.st_dev;
    // Any user may ask a btrfs its UUID; an O_PATH descriptor cannot be asked.
    struct btrfs_ioctl_fs_info_args info { };
    const int fd = openNoAtime(rootFd, ".", O_RDONLY | O_DIRECTORY);
    if (fd >= 0 && ::ioctl(fd, BTRFS_IOC_FS_INFO, &info) == 0)
        m_fileSystem = QByteArray(reinterpret_cast<const char *>(info.fsid), sizeof info.fsid);
    if (fd >= 0)
        ::close(fd);
}

void FolderWalker::walk(const QByteArray &start, const Visitor &visit)
{
    // Most of a rescan is the kernel looking up and stat'ing each file, one call at a time: a
    // second thread reads folders ahead while this one visits them, so both cores share it. The
    // visitor runs here only, so it needs no locking of its own.
    QMutex lock;
    QWaitCondition changed;
    QList<QByteArray> pending{start};
    std::deque<Folder> ready; // read ahead, waiting to be visited
    int reading = 0;
    bool finished = false;

    std::thread reader([&] {
        // A new thread keeps its creator's idle CPU and I/O priority.
        QMutexLocker locker(&lock);
        while (!finished) {
            if (pending.isEmpty() || ready.size() >= kReadAhead) {
                changed.wait(&lock);
                continue;
            }
            Folder folder;
            folder.relative = pending.takeLast();
            ++reading;
            locker.unlock();
            const bool ok = read(&folder);
            locker.relock();
            --reading;
            if (ok)
                ready.push_back(std::move(folder));
            changed.wakeAll();
        }
    });

    QMutexLocker locker(&lock);
    for (;;) {
        Folder folder;
        if (!ready.empty()) {
            folder = std::move(ready.front());
            ready.pop_front();
            changed.wakeAll();
            locker.unlock();
        } else if (!pending.isEmpty()) {
            folder.relative = pending.takeLast();
            locker.unlock();
            if (!read(&folder)) {
                locker.relock();
                continue;
            }
        } else if (reading > 0) {
            changed.wait(&lock);
            continue;
        } else {
            break;
        }
        const bool descend = visit(folder);
        ::close(folder.fd);
        locker.relock();
        if (!descend)
            continue;
        for (const QByteArray &name : std::as_const(folder.subfolders))
            pending.append(folder.relative.isEmpty() ? name : folder.relative + '/' + name);
        changed.wakeAll();
    }
    finished = true;
    changed.wakeAll();
    locker.unlock();
    reader.join();
}

bool FolderWalker::list(const QByteArray &start, const Visitor &visit)
{
    Folder folder;
    folder.relative = start;
    if (!read(&folder))
        return false;
    visit(folder);
    ::close(folder.fd);
    return true;
}

int FolderWalker::openNoAtime(int dirFd, const char *path, int flags)
{
    int fd = ::openat(dirFd, path, flags | O_CLOEXEC | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::openat(dirFd, path, flags | O_CLOEXEC);
    return fd;
}

bool FolderWalker::isExcluded(const QByteArray &relative) const
{
    // Names may be any bytes; the rules speak Unicode, so decode as the file system would.
    return VTExclusionRules::mustExcludePath(QFile::decodeName(m_rootPath + '/' + relative));
}

QList<FolderWalker::LeftOut> FolderWalker::leftOut() const
{
    QMutexLocker locker(&m_leftOutLock);
    return m_leftOut;
}

void FolderWalker::leaveOut(const QByteArray &relative, LeftOut::Reason reason, int error)
{
    QMutexLocker locker(&m_leftOutLock);
    m_leftOut.append({relative, reason, error});
}

bool FolderWalker::isWalked(const Folder &folder, dev_t device)
{
    // btrfs gives every subvolume a device number of its own; a mount point has one too.
    QMutexLocker locker(&m_leftOutLock);
    auto known = m_devices.constFind(device);
    if (known == m_devices.cend()) {
        std::optional<LeftOut::Reason> reason;
        struct btrfs_ioctl_fs_info_args info { };
        __u64 flags = 0;
        if (m_fileSystem.isEmpty() || ::ioctl(folder.fd, BTRFS_IOC_FS_INFO, &info) != 0
            || QByteArrayView(reinterpret_cast<const char *>(info.fsid), sizeof info.fsid) != m_fileSystem)
            reason = LeftOut::Reason::OtherFileSystem;
        else if (::ioctl(folder.fd, BTRFS_IOC_SUBVOL_GETFLAGS, &flags) != 0 || (flags & BTRFS_SUBVOL_RDONLY))
            reason = LeftOut::Reason::ReadOnlySubvolume;
        known = m_devices.insert(device, reason);
    }
    if (!known->has_value())
        return true;
    m_leftOut.append({folder.relative, **known, 0});
    return false;
}

bool FolderWalker::read(Folder *folder)
{
    const char *at = folder->relative.isEmpty() ? "." : folder->relative.constData();
    // Read without marking it read: in a snapshotted subvolume that would copy its metadata.
    folder->fd = openNoAtime(m_rootFd, at, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (folder->fd < 0) {
        // Gone meanwhile is no fault; too deep to name or not ours to read is.
        if (errno != ENOENT && errno != ENOTDIR) {
            const int error = errno;
            leaveOut(folder->relative, LeftOut::Reason::Unreadable, error);
            QMutexLocker locker(&m_unreadableLock);
            m_unreadable.add(error);
        }
        return false;
    }
    struct stat st { };
    DIR *dir = nullptr;
    if (::fstat(folder->fd, &st) != 0 || (st.st_dev != m_device && !isWalked(*folder, st.st_dev))
        || !(dir = ::fdopendir(::dup(folder->fd)))) {
        ::close(folder->fd);
        return false;
    }
    while (const struct dirent *entry = ::readdir(dir)) {
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
            continue;
        unsigned char type = entry->d_type;
        struct stat st;
        if (type == DT_REG || type == DT_UNKNOWN) {
            if (::fstatat(folder->fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (type == DT_REG) {
            folder->files.append({folder->names.size(), st});
            folder->names.append(name, qsizetype(std::strlen(name)) + 1);
        } else if (type == DT_DIR) {
            const QByteArray subfolder(name);
            const QByteArray relative = folder->relative.isEmpty() ? subfolder : folder->relative + '/' + subfolder;
            if (isExcluded(relative))
                leaveOut(relative, LeftOut::Reason::Excluded);
            else
                folder->subfolders.append(subfolder);
        }
    }
    ::closedir(dir);
    return true;
}
