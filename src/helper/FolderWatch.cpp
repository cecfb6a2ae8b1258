#include "helper/FolderWatch.h"
#include "helper/HelperLog.h"
#include "helper/SavingsTally.h"

#include <QFile>
#include <QSet>
#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

constexpr uint32_t kMask = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB
    | IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

} // namespace

FolderWatch::FolderWatch(QObject *parent)
    : QObject(parent)
    , m_fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    if (m_fd < 0) {
        qCWarning(lcHelper, "cannot watch folders for changes (%s); they are rescanned instead", std::strerror(errno));
        return;
    }
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &FolderWatch::readEvents);
}

FolderWatch::~FolderWatch()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

int FolderWatch::limit()
{
    // The system's limit, or a lower one of the user namespace the helper runs in.
    int lowest = 0;
    for (const char *path : {"/proc/sys/fs/inotify/max_user_watches", "/proc/sys/user/max_inotify_watches"}) {
        QFile file(QString::fromLatin1(path));
        const int value = file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toInt() : 0;
        if (value > 0 && (lowest == 0 || value < lowest))
            lowest = value;
    }
    return lowest;
}

qsizetype FolderWatch::count() const
{
    return m_places.size();
}

FolderWatch::Result FolderWatch::watch(qint64 id, const QByteArray &relative, int fd)
{
    if (m_fd < 0)
        return Result::Failed;
    // Through the descriptor: the path may be too long to name, or have changed meanwhile.
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(fd);
    const int wd = ::inotify_add_watch(m_fd, link.constData(), kMask);
    if (wd < 0)
        return errno == ENOSPC ? Result::LimitReached : Result::Failed;
    QHash<QByteArray, int> &watches = m_watches[id];
    const int old = watches.value(relative, -1);
    if (old == wd)
        return Result::Watched;
    if (old >= 0)
        release(old, id, relative); // the folder was replaced by another one of that name
    m_places[wd].append({id, relative});
    watches.insert(relative, wd);
    return Result::Watched;
}

bool FolderWatch::isWatched(qint64 id, const QByteArray &relative) const
{
    const auto it = m_watches.constFind(id);
    return it != m_watches.cend() && it->contains(relative);
}

void FolderWatch::unwatch(qint64 id, const QByteArray &relative)
{
    auto folder = m_watches.find(id);
    if (folder == m_watches.end())
        return;
    for (auto it = folder->begin(); it != folder->end();) {
        if (!SavingsTally::isBelow(it.key(), relative)) {
            ++it;
            continue;
        }
        release(it.value(), id, it.key());
        it = folder->erase(it);
    }
    if (folder->isEmpty())
        m_watches.erase(folder);
}

void FolderWatch::unwatchAll(qint64 id)
{
    unwatch(id, QByteArray());
}

void FolderWatch::release(int wd, qint64 id, const QByteArray &relative)
{
    const auto it = m_places.find(wd);
    if (it == m_places.end())
        return;
    it->removeIf([&](const Place &place) { return place.id == id && place.relative == relative; });
    if (!it->isEmpty())
        return; // another record still hears it
    ::inotify_rm_watch(m_fd, wd);
    m_places.erase(it);
}

void FolderWatch::forget(int wd)
{
    const auto places = m_places.constFind(wd);
    if (places == m_places.cend())
        return;
    for (const Place &place : *places) {
        auto folder = m_watches.find(place.id);
        if (folder != m_watches.end() && folder->value(place.relative) == wd)
            folder->remove(place.relative);
    }
    m_places.erase(places);
}

void FolderWatch::readEvents()
{
    alignas(struct inotify_event) char buffer[64 * 1024];
    QSet<QPair<qint64, QByteArray>> changes;
    QSet<qint64> moved;
    bool overflow = false;
    for (;;) {
        const ssize_t length = ::read(m_fd, buffer, sizeof buffer);
        if (length <= 0)
            break;
        for (const char *at = buffer; at < buffer + length;) {
            const auto *event = reinterpret_cast<const struct inotify_event *>(at);
            at += sizeof(struct inotify_event) + event->len;
            if (event->mask & IN_Q_OVERFLOW) {
                overflow = true;
                continue;
            }
            if (event->mask & IN_IGNORED) {
                forget(event->wd);
                continue;
            }
            const QList<Place> places = m_places.value(event->wd);
            for (const Place &place : std::as_const(places)) {
                if (event->mask & (IN_MOVE_SELF | IN_DELETE_SELF)) {
                    // A folder below is reported by its parent; only a watched folder itself matters.
                    if (place.relative.isEmpty())
                        moved.insert(place.id);
                    continue;
                }
                // Attributes of a folder are ours (the compression property) or of no interest.
                if ((event->mask & IN_ATTRIB) && ((event->mask & IN_ISDIR) || event->len == 0))
                    continue;
                if ((event->mask & IN_ISDIR) && (event->mask & (IN_MOVED_FROM | IN_DELETE))) {
                    const QByteArray name(event->name);
                    unwatch(place.id, place.relative.isEmpty() ? name : place.relative + '/' + name);
                }
                changes.insert({place.id, place.relative});
            }
        }
    }
    if (overflow)
        Q_EMIT overflowed();
    for (const auto &change : std::as_const(changes))
        Q_EMIT changed(change.first, change.second);
    for (qint64 id : std::as_const(moved))
        Q_EMIT folderMoved(id);
}
