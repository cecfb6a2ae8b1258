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
#include <unistd.h>

FolderWalker::FolderWalker(int rootFd, const QByteArray &rootPath)
    : m_rootFd(rootFd)
    , m_rootPath(rootPath)
{
    struct stat st { };
    if (::fstat(rootFd, &st) == 0)
        m_device = st.st_dev;
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

bool FolderWalker::read(Folder *folder)
{
    const char *at = folder->relative.isEmpty() ? "." : folder->relative.constData();
    // Read without marking it read: in a snapshotted subvolume that would copy its metadata.
    folder->fd = openNoAtime(m_rootFd, at, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (folder->fd < 0) {
        // Gone meanwhile is no fault; too deep to name or not ours to read is.
        if (errno != ENOENT && errno != ENOTDIR) {
            const int error = errno;
            QMutexLocker locker(&m_unreadableLock);
            m_unreadable.add(error);
        }
        return false;
    }
    struct stat st { };
    DIR *dir = nullptr;
    if (::fstat(folder->fd, &st) != 0 || st.st_dev != m_device || !(dir = ::fdopendir(::dup(folder->fd)))) {
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
            if (!isExcluded(folder->relative.isEmpty() ? subfolder : folder->relative + '/' + subfolder))
                folder->subfolders.append(subfolder);
        }
    }
    ::closedir(dir);
    return true;
}
