#include "btrfs/FolderWalker.h"

#include "common/VTExclusionRules.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <algorithm>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <unistd.h>

FolderWalker::FolderWalker() = default;

FolderWalker::~FolderWalker()
{
    {
        QMutexLocker locker(&m_lock);
        m_stopping = true;
        m_changed.wakeAll();
    }
    if (m_reader.joinable())
        m_reader.join();
}

void FolderWalker::begin(int rootFd, const QByteArray &rootPath, const QByteArray &start, bool whole)
{
    end();
    // Made by the first walk, on the walking thread, so it keeps that thread's priority.
    if (!m_reader.joinable())
        m_reader = std::thread([this] { readAhead(); });
    struct stat st { };
    // Any user may ask a btrfs its UUID; an O_PATH descriptor cannot be asked.
    struct btrfs_ioctl_fs_info_args info { };
    const int fd = openNoAtime(rootFd, ".", O_RDONLY | O_DIRECTORY);
    const bool btrfs = fd >= 0 && ::ioctl(fd, BTRFS_IOC_FS_INFO, &info) == 0;
    if (fd >= 0)
        ::close(fd);
    QMutexLocker locker(&m_lock);
    m_rootFd = rootFd;
    m_rootPath = rootPath;
    m_device = ::fstat(rootFd, &st) == 0 ? st.st_dev : 0;
    m_fileSystem = btrfs ? QByteArray(reinterpret_cast<const char *>(info.fsid), sizeof info.fsid) : QByteArray();
    m_leftOut.clear();
    m_devices.clear();
    m_whole = whole;
    m_walking = true;
    m_pending = {start};
    m_changed.wakeAll();
}

void FolderWalker::end()
{
    QMutexLocker locker(&m_lock);
    m_walking = false;
    // A folder being read still uses the root; what it brings is dropped.
    while (m_reading > 0)
        m_changed.wait(&m_lock);
    m_pending.clear();
    m_ready.clear();
}

std::optional<FolderWalker::Folder> FolderWalker::next()
{
    QMutexLocker locker(&m_lock);
    for (;;) {
        if (!m_ready.empty()) {
            Folder folder = std::move(m_ready.front());
            m_ready.pop_front();
            m_changed.wakeAll();
            return folder;
        }
        if (m_walking && !m_pending.isEmpty())
            readPending(locker); // the reader is behind: read here too
        else if (m_reading > 0)
            m_changed.wait(&m_lock);
        else
            return std::nullopt;
    }
}

void FolderWalker::walk(int rootFd, const QByteArray &rootPath, const QByteArray &start, const Visitor &visit)
{
    begin(rootFd, rootPath, start, true);
    while (const std::optional<Folder> folder = next())
        visit(*folder);
    end();
}

void FolderWalker::readAhead()
{
    QMutexLocker locker(&m_lock);
    while (!m_stopping) {
        if (!m_walking || m_pending.isEmpty() || m_ready.size() >= kReadAhead)
            m_changed.wait(&m_lock);
        else
            readPending(locker);
    }
}

void FolderWalker::readPending(QMutexLocker<QMutex> &locker)
{
    Folder folder;
    folder.relative = m_pending.takeLast();
    ++m_reading;
    locker.unlock();
    const bool ok = read(&folder);
    locker.relock();
    --m_reading;
    // Dropped when the walk was ended meanwhile.
    if (ok && m_walking) {
        if (m_whole) {
            for (const QByteArray &name : std::as_const(folder.subfolders))
                m_pending.append(folder.relative.isEmpty() ? name : folder.relative + '/' + name);
        }
        m_ready.push_back(std::move(folder));
    }
    m_changed.wakeAll();
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
    QMutexLocker locker(&m_lock);
    // Two threads find them; the same tree gives the same list.
    QList<LeftOut> sorted = m_leftOut;
    std::sort(sorted.begin(), sorted.end(), [](const LeftOut &a, const LeftOut &b) { return a.relative < b.relative; });
    return sorted;
}

void FolderWalker::leaveOut(const QByteArray &relative, LeftOut::Reason reason, int error)
{
    QMutexLocker locker(&m_lock);
    m_leftOut.append({relative, reason, error});
}

bool FolderWalker::isWalked(int fd, const QByteArray &relative, dev_t device)
{
    // btrfs gives every subvolume a device number of its own; a mount point has one too.
    QMutexLocker locker(&m_lock);
    auto known = m_devices.constFind(device);
    if (known == m_devices.cend()) {
        std::optional<LeftOut::Reason> reason;
        struct btrfs_ioctl_fs_info_args info { };
        // Asked of any folder of the subvolume: a job may start deep inside one (its flags ioctl
        // answers only for the subvolume's top folder). Kernels answer 1 for success here too.
        struct btrfs_ioctl_get_subvol_info_args subvolume { };
        if (m_fileSystem.isEmpty() || ::ioctl(fd, BTRFS_IOC_FS_INFO, &info) != 0
            || QByteArrayView(reinterpret_cast<const char *>(info.fsid), sizeof info.fsid) != m_fileSystem)
            reason = LeftOut::Reason::OtherFileSystem;
        else if (::ioctl(fd, BTRFS_IOC_GET_SUBVOL_INFO, &subvolume) < 0 || (subvolume.flags & BTRFS_ROOT_SUBVOL_RDONLY))
            reason = LeftOut::Reason::ReadOnlySubvolume;
        known = m_devices.insert(device, reason);
    }
    if (!known->has_value())
        return true;
    m_leftOut.append({relative, **known, 0});
    return false;
}

bool FolderWalker::read(Folder *folder)
{
    // Set by begin() while no read was in hand, so stable for this one.
    const int rootFd = m_rootFd;
    const char *at = folder->relative.isEmpty() ? "." : folder->relative.constData();
    // Read without marking it read: in a snapshotted subvolume that would copy its metadata.
    const int fd = openNoAtime(rootFd, at, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0) {
        // Gone meanwhile is no fault; too deep to name or not ours to read is.
        if (errno != ENOENT && errno != ENOTDIR)
            leaveOut(folder->relative, LeftOut::Reason::Unreadable, errno);
        return false;
    }
    struct stat st { };
    DIR *dir = nullptr;
    if (::fstat(fd, &st) != 0 || (st.st_dev != m_device && !isWalked(fd, folder->relative, st.st_dev))
        || !(dir = ::fdopendir(fd))) {
        ::close(fd);
        return false;
    }
    while (const struct dirent *entry = ::readdir(dir)) {
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
            continue;
        unsigned char type = entry->d_type;
        struct stat st;
        if (type == DT_REG || type == DT_UNKNOWN) {
            if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
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
