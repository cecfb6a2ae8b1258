#include "btrfs/SkippedFiles.h"

#include <QMutexLocker>

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

std::optional<SkippedFiles::Reason> SkippedFiles::cannotCompress(int fd)
{
    int flags = 0;
    // Swap files are NOCOW too; an active one is told apart only when its rewrite is refused.
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_NOCOW_FL))
        return Reason::NoCopyOnWrite;
    return std::nullopt;
}

QString SkippedFiles::describe(Reason reason)
{
    switch (reason) {
    case Reason::NoCopyOnWrite:
        return QStringLiteral(
            "copy-on-write is off for it (as for databases and disk images), and btrfs compresses only copy-on-write files");
    case Reason::SwapFile:
        return QStringLiteral("it is a swap file in use");
    case Reason::StaysPlain:
        return QStringLiteral("btrfs kept it uncompressed when it was rewritten");
    }
    return {};
}

SkippedFiles::Key SkippedFiles::keyOf(const struct stat &st)
{
    return {quint64(st.st_dev), quint64(st.st_ino), qint64(st.st_ctim.tv_sec), qint64(st.st_ctim.tv_nsec)};
}

std::optional<SkippedFiles::Reason> SkippedFiles::find(const struct stat &st) const
{
    QMutexLocker locker(&m_lock);
    const auto it = m_files.constFind(keyOf(st));
    if (it == m_files.cend())
        return std::nullopt;
    return it.value();
}

void SkippedFiles::add(const struct stat &st, Reason reason)
{
    QMutexLocker locker(&m_lock);
    m_files.insert(keyOf(st), reason);
}
