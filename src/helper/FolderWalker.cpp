#include "helper/FolderWalker.h"

#include "common/VTExclusionRules.h"

#include <QFile>

#include <cerrno>
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
    QList<QByteArray> pending{start};
    while (!pending.isEmpty()) {
        const QByteArray relative = pending.takeLast();
        Folder folder;
        folder.relative = relative;
        if (!read(&folder))
            continue;
        const bool descend = visit(folder);
        ::close(folder.fd);
        if (!descend)
            continue;
        for (const QByteArray &name : std::as_const(folder.subfolders))
            pending.append(relative.isEmpty() ? name : relative + '/' + name);
    }
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
        if (errno != ENOENT && errno != ENOTDIR)
            m_unreadable.add(errno);
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
        File file{QByteArray(name), {}};
        if (type == DT_REG || type == DT_UNKNOWN) {
            if (::fstatat(folder->fd, name, &file.st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            type = S_ISDIR(file.st.st_mode) ? DT_DIR : S_ISREG(file.st.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (type != DT_DIR && type != DT_REG)
            continue;
        if (type == DT_REG)
            folder->files.append(std::move(file));
        else if (!isExcluded(folder->relative.isEmpty() ? file.name : folder->relative + '/' + file.name))
            folder->subfolders.append(file.name);
    }
    ::closedir(dir);
    return true;
}
