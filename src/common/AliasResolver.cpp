#include "common/AliasResolver.h"

#include "common/AliasVolume.h"
#include "common/FSRef.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSet>

#include <atomic>
#include <deque>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace {

constexpr int kFileNotFound = -43;
constexpr int kNoSuchVolume = -35;
constexpr int kMaxHandleBytes = 128;

std::atomic<bool> g_useFileHandles{true};

QByteArray parentOf(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    return slash <= 0 ? QByteArray("/") : path.left(slash);
}

QByteArray join(const QByteArray &dir, const char *name)
{
    return dir == "/" ? "/" + QByteArray(name) : dir + '/' + name;
}

bool isBelow(const QByteArray &path, const QByteArray &root)
{
    if (root == "/")
        return path.startsWith('/');
    return path == root || (path.startsWith(root) && path.at(root.size()) == '/');
}

// The record's volume among those mounted now, preferring the place it was mounted at.
std::optional<AliasVolume> findVolume(const AliasRecord &rec, const QList<AliasVolume> &mounts)
{
    std::optional<AliasVolume> found;
    for (const AliasVolume &v : mounts) {
        if (v.fsType != rec.fsType)
            continue;
        bool match = v.device == rec.device;
        if (!rec.volumeUuid.isEmpty()) {
            // A device we may not read gives no UUID; then the device number must do.
            const QByteArray uuid = v.uuid();
            match = uuid.isEmpty() ? match : uuid == rec.volumeUuid;
        }
        if (match && (!found || v.mountPoint == rec.mountPoint)) {
            found = v;
            if (v.mountPoint == rec.mountPoint)
                break;
        }
    }
    return found;
}

class Search
{
public:
    Search(const AliasRecord &rec, const AliasVolume &volume, const QList<AliasVolume> &mounts)
        : m_rec(rec)
        , m_volume(volume)
        , m_trustDirentInodes(volume.fsType != "overlay")
    {
        struct stat st = {};
        if (::stat(volume.mountPoint.constData(), &st) == 0)
            m_mountDevice = st.st_dev;
        for (const AliasVolume &v : mounts) {
            if (v.mountPoint != volume.mountPoint && isBelow(v.mountPoint, volume.mountPoint))
                m_otherMounts.insert(v.mountPoint);
        }
        m_timer.start();
    }

    // The record's path moved to where the volume is mounted now.
    QByteArray translate(const QByteArray &path) const
    {
        if (m_volume.mountPoint == m_rec.mountPoint || !isBelow(path, m_rec.mountPoint))
            return path;
        const QByteArray rest = m_rec.mountPoint == "/" ? path : path.mid(m_rec.mountPoint.size());
        return m_volume.mountPoint == "/" ? rest : m_volume.mountPoint + rest;
    }

    bool isTarget(const struct stat &st, int dirfd, const char *name, bool follow) const
    {
        if (st.st_ino != m_rec.node)
            return false;
        bool sameVolume = st.st_dev == m_mountDevice || st.st_dev == m_rec.device;
        // Another btrfs subvolume of the same file system has a device number of its own.
        if (!sameVolume && m_rec.subvolumeId != 0) {
            const int fd = ::openat(dirfd, name, O_PATH | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
            if (fd < 0)
                return false;
            sameVolume = AliasVolume::btrfsSubvolumeId(fd) == m_rec.subvolumeId;
            ::close(fd);
        }
        return sameVolume && sameGeneration(dirfd, name, follow);
    }

    // Inode numbers are reused at once on some file systems; the file handle also carries
    // the inode's generation, and anyone may ask for it.
    bool sameGeneration(int dirfd, const char *name, bool follow) const
    {
        if (m_rec.handle.isEmpty())
            return true;
        alignas(file_handle) char buffer[sizeof(file_handle) + kMaxHandleBytes];
        auto *fh = reinterpret_cast<file_handle *>(buffer);
        fh->handle_bytes = kMaxHandleBytes;
        int mountId = 0;
        if (::name_to_handle_at(dirfd, name, fh, &mountId, follow ? AT_SYMLINK_FOLLOW : 0) != 0)
            return true;
        return fh->handle_type == m_rec.handleType
            && QByteArrayView(reinterpret_cast<const char *>(fh->f_handle), fh->handle_bytes) == m_rec.handle;
    }

    QByteArray checkPath(const QByteArray &path) const
    {
        struct stat st = {};
        if (path.isEmpty() || !isBelow(path, m_volume.mountPoint) || ::stat(path.constData(), &st) != 0)
            return {};
        return isTarget(st, AT_FDCWD, path.constData(), true) ? path : QByteArray();
    }

    QByteArray byFileHandle() const
    {
        if (!g_useFileHandles || m_rec.handle.isEmpty() || m_rec.handle.size() > kMaxHandleBytes)
            return {};
        const int mountFd = ::open(m_volume.mountPoint.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (mountFd < 0)
            return {};
        alignas(file_handle) char buffer[sizeof(file_handle) + kMaxHandleBytes];
        auto *fh = reinterpret_cast<file_handle *>(buffer);
        fh->handle_bytes = unsigned(m_rec.handle.size());
        fh->handle_type = m_rec.handleType;
        memcpy(fh->f_handle, m_rec.handle.constData(), m_rec.handle.size());
        const int fd = ::open_by_handle_at(mountFd, fh, O_PATH | O_CLOEXEC);
        ::close(mountFd);
        if (fd < 0)
            return {}; // EPERM for ordinary users, ESTALE once the item is gone
        const QByteArray path = FSRef::fromPath(QFile::decodeName("/proc/self/fd/" + QByteArray::number(fd))).path();
        ::close(fd);
        // The kernel's name for it must lead back to it.
        return checkPath(path);
    }

    // Breadth first through the old parent's tree, then through each ancestor's, up to the
    // mount point: a near move is found quickly, a far one still within the volume.
    QByteArray byNode()
    {
        QByteArray start = parentOf(translate(m_rec.path));
        struct stat st = {};
        while (start != m_volume.mountPoint && isBelow(start, m_volume.mountPoint)
               && (::stat(start.constData(), &st) != 0 || !S_ISDIR(st.st_mode)))
            start = parentOf(start);
        if (!isBelow(start, m_volume.mountPoint))
            start = m_volume.mountPoint;

        QByteArray searched;
        for (;;) {
            const QByteArray found = breadthFirst(start, searched);
            if (!found.isEmpty() || m_exhausted || start == m_volume.mountPoint)
                return found;
            searched = start;
            start = parentOf(start);
        }
    }

private:
    QByteArray breadthFirst(const QByteArray &root, const QByteArray &skip)
    {
        std::deque<QByteArray> queue{root};
        while (!queue.empty()) {
            if (++m_visited > AliasResolver::kMaxDirectories
                || ((m_visited & 255) == 0 && m_timer.elapsed() > AliasResolver::kMaxMilliseconds)) {
                m_exhausted = true;
                return {};
            }
            const QByteArray dir = std::move(queue.front());
            queue.pop_front();
            const int fd = ::open(dir.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (fd < 0)
                continue;
            DIR *stream = ::fdopendir(fd);
            if (!stream) {
                ::close(fd);
                continue;
            }
            while (const dirent *entry = ::readdir(stream)) {
                const char *name = entry->d_name;
                if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
                    continue;
                bool isDir = entry->d_type == DT_DIR;
                if (!m_trustDirentInodes || entry->d_ino == m_rec.node || entry->d_type == DT_UNKNOWN) {
                    struct stat st = {};
                    if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                        continue;
                    if (isTarget(st, fd, name, false)) {
                        const QByteArray path = join(dir, name);
                        ::closedir(stream);
                        return path;
                    }
                    isDir = S_ISDIR(st.st_mode);
                }
                if (isDir) {
                    QByteArray child = join(dir, name);
                    if (child != skip && !m_otherMounts.contains(child))
                        queue.push_back(std::move(child));
                }
            }
            ::closedir(stream);
        }
        return {};
    }

    const AliasRecord &m_rec;
    const AliasVolume &m_volume;
    const bool m_trustDirentInodes;
    dev_t m_mountDevice = 0;
    QSet<QByteArray> m_otherMounts;
    QElapsedTimer m_timer;
    int m_visited = 0;
    bool m_exhausted = false;
};

} // namespace

std::optional<AliasRecord> AliasResolver::makeRecord(const FSRef &target, const FSRef *base, int *status)
{
    auto fail = [status](int code) {
        if (status)
            *status = code;
        return std::nullopt;
    };
    const QByteArray path = target.path();
    if (!target.isValid() || path.isEmpty())
        return fail(kFileNotFound);
    const QList<AliasVolume> mounts = AliasVolume::mounted();
    const std::optional<AliasVolume> volume = AliasVolume::containing(path, mounts);
    if (!volume)
        return fail(kNoSuchVolume);

    const struct stat &st = target.fileStatus();
    AliasRecord rec;
    rec.volumeUuid = volume->uuid();
    rec.subvolumeId = volume->fsType == "btrfs" ? AliasVolume::btrfsSubvolumeId(target.fd()) : 0;
    rec.device = st.st_dev;
    struct statfs fs = {};
    if (::fstatfs(target.fd(), &fs) == 0)
        rec.fsMagic = quint32(fs.f_type);
    rec.fsType = volume->fsType;
    rec.volumeName = volume->name();
    rec.mountPoint = volume->mountPoint;
    rec.volumeFlags = (volume->mountPoint == "/" ? quint32(AliasRecord::BootVolume) : 0u)
        | (volume->isAutomounted(mounts) ? quint32(AliasRecord::Automounted) : 0u)
        | (volume->isEjectable() ? quint32(AliasRecord::Ejectable) : 0u)
        | (volume->hasPersistentFileIds() ? quint32(AliasRecord::PersistentFileIds) : 0u);

    rec.node = st.st_ino;
    struct stat parent = {};
    rec.parentNode = ::stat(parentOf(path).constData(), &parent) == 0 ? parent.st_ino : st.st_ino;
    rec.targetFlags = S_ISDIR(st.st_mode) ? quint32(AliasRecord::IsDirectory) : 0u;
    rec.name = path == "/" ? path : path.mid(path.lastIndexOf('/') + 1);
    rec.path = path;

    alignas(file_handle) char buffer[sizeof(file_handle) + kMaxHandleBytes];
    auto *fh = reinterpret_cast<file_handle *>(buffer);
    fh->handle_bytes = kMaxHandleBytes;
    int mountId = 0;
    if (::name_to_handle_at(target.fd(), "", fh, &mountId, AT_EMPTY_PATH) == 0) {
        rec.handleType = fh->handle_type;
        rec.handle = QByteArray(reinterpret_cast<const char *>(fh->f_handle), fh->handle_bytes);
    }

    if (base && base->isValid()) {
        QByteArray baseDir = base->path();
        if (!S_ISDIR(base->fileStatus().st_mode))
            baseDir = parentOf(baseDir);
        if (!baseDir.isEmpty()) {
            rec.baseNode = base->fileStatus().st_ino;
            rec.relativePath =
                QFile::encodeName(QDir(QFile::decodeName(baseDir)).relativeFilePath(QFile::decodeName(path)));
        }
    }
    if (status)
        *status = 0;
    return rec;
}

QByteArray AliasResolver::resolve(const AliasRecord &record, const FSRef *base)
{
    const QList<AliasVolume> mounts = AliasVolume::mounted();
    const std::optional<AliasVolume> volume = findVolume(record, mounts);
    if (!volume)
        return {};
    Search search(record, *volume, mounts);

    if (QByteArray path = search.byFileHandle(); !path.isEmpty())
        return path;
    if (base && base->isValid() && !record.relativePath.isEmpty()) {
        QByteArray baseDir = base->path();
        if (!S_ISDIR(base->fileStatus().st_mode))
            baseDir = parentOf(baseDir);
        const QString joined =
            QDir::cleanPath(QFile::decodeName(baseDir) + u'/' + QFile::decodeName(record.relativePath));
        if (QByteArray path = search.checkPath(QFile::encodeName(joined)); !path.isEmpty())
            return path;
    }
    if (QByteArray path = search.checkPath(search.translate(record.path)); !path.isEmpty())
        return path;
    return search.byNode();
}

void AliasResolver::setUseFileHandles(bool use)
{
    g_useFileHandles = use;
}
