#include "helper/WatchedFolder.h"

#include <unistd.h>

WatchedFolder::WatchedFolder(const JobTag &tag, int fd, const QString &path, QObject *parent)
    : QObject(parent)
    , tag(tag)
    , fd(fd)
    , path(path)
{
}

WatchedFolder::~WatchedFolder()
{
    ::close(fd);
}

quint32 WatchedFolder::currentStatus() const
{
    if (!hasWork())
        return 100;
    const qsizetype percent = files > 0 ? filesDone * 100 / files : 0;
    return quint32(std::clamp<qsizetype>(percent, 0, 99));
}
