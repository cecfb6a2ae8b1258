#include "helper/CompressionWorker.h"

#include "helper/BtrfsCompressor.h"
#include "btrfs/CompressionModel.h"
#include "helper/FileCompressor.h"
#include "btrfs/FolderWalker.h"
#include "helper/FolderWatch.h"
#include "helper/FreeSpaceGuard.h"
#include "helper/SettleQueue.h"
#include "helper/HelperLog.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QFile>

#include <cstring>
#include <unistd.h>

namespace {

// How long the cache may stay behind the files it describes; a helper killed meanwhile
// only looks at those files again.
constexpr qint64 kCacheSaveMs = 60000;

QByteArray joined(const QByteArray &folder, const QByteArray &name)
{
    return folder.isEmpty() ? name : folder + '/' + name;
}

bool isBelow(const QByteArray &path, const QByteArray &folder)
{
    return folder.isEmpty() || path == folder || (path.startsWith(folder) && path.at(folder.size()) == '/');
}

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

void CompressionWorker::Tally::count(const QList<ExtentMap::Stored> &stored, bool more)
{
    for (const ExtentMap::Stored &extent : stored) {
        const auto it = extents.find(extent.physical);
        if (more && it == extents.end()) {
            const Extent counted{qint32(qMin(extent.savings, qint64(INT32_MAX))), 1};
            extents.insert(extent.physical, counted);
            total.savings += counted.savings;
        } else if (more) {
            ++it->files;
        } else if (it != extents.end() && --it->files == 0) {
            total.savings -= it->savings;
            extents.erase(it);
        }
    }
}

void CompressionWorker::Tally::set(const QByteArray &relative, RescanCache::Figures figures)
{
    RescanCache::Figures &entry = folders[relative];
    // Counted before the old ones go, so an extent still there keeps its figure.
    count(figures.stored, true);
    count(entry.stored, false);
    total.savings += figures.savings - entry.savings;
    total.shared += figures.shared - entry.shared;
    entry = std::move(figures);
}

void CompressionWorker::Tally::add(const QByteArray &relative, const RescanCache::Figures &figures)
{
    RescanCache::Figures &entry = folders[relative];
    count(figures.stored, true);
    entry.savings += figures.savings;
    entry.shared += figures.shared;
    entry.stored += figures.stored;
    total.savings += figures.savings;
    total.shared += figures.shared;
}

void CompressionWorker::Tally::dropBelow(const QByteArray &relative)
{
    for (auto it = folders.begin(); it != folders.end();) {
        if (isBelow(it.key(), relative)) {
            count(it->stored, false);
            total.savings -= it->savings;
            total.shared -= it->shared;
            it = folders.erase(it);
        } else {
            ++it;
        }
    }
}

CompressionWorker::CompressionWorker(FolderWatch *watch, QObject *parent)
    : QThread(parent)
    , m_watch(watch)
{
}

CompressionWorker::~CompressionWorker()
{
    stop();
    for (const Folder &folder : std::as_const(m_folders))
        ::close(folder.fd);
    for (int fd : std::as_const(m_dropped))
        ::close(fd);
}

void CompressionWorker::addFolder(qint64 id, int rootFd, const QByteArray &path)
{
    {
        QMutexLocker locker(&m_lock);
        const auto old = m_folders.constFind(id);
        if (old != m_folders.cend())
            m_dropped.append(old->fd);
        m_folders.insert(id, {rootFd, path, false});
        m_droppedIds.removeAll(id);
    }
    scan(id, QByteArray(), true);
}

void CompressionWorker::setPath(qint64 id, const QByteArray &path)
{
    QMutexLocker locker(&m_lock);
    const auto it = m_folders.find(id);
    if (it != m_folders.end())
        it->path = path;
}

void CompressionWorker::scan(qint64 id, const QByteArray &relative, bool whole)
{
    QMutexLocker locker(&m_lock);
    if (!m_folders.contains(id))
        return;
    for (const Job &job : std::as_const(m_jobs)) {
        // A queued look at a folder above covers this one.
        if (job.id == id && (job.relative == relative || (job.whole && isBelow(relative, job.relative)))
            && (job.whole || !whole))
            return;
    }
    m_jobs.append({id, relative, whole});
    m_wake.wakeAll();
}

void CompressionWorker::rescanAll()
{
    QList<qint64> ids;
    {
        QMutexLocker locker(&m_lock);
        ids = m_folders.keys();
    }
    for (qint64 id : std::as_const(ids))
        scan(id, QByteArray(), true);
}

bool CompressionWorker::hasJob(qint64 id) const
{
    for (const Job &job : m_jobs) {
        if (job.id == id)
            return true;
    }
    return false;
}

bool CompressionWorker::isBusy(qint64 id) const
{
    QMutexLocker locker(&m_lock);
    return m_current == id || hasJob(id);
}

void CompressionWorker::cancel(qint64 id)
{
    QMutexLocker locker(&m_lock);
    m_jobs.removeIf([id](const Job &job) { return job.id == id; });
    const auto it = m_folders.constFind(id);
    if (it != m_folders.cend()) {
        m_dropped.append(it->fd);
        m_folders.erase(it);
    }
    m_droppedIds.append(id);
    if (m_current == id)
        m_cancelCurrent = true;
    m_watch->unwatchAll(id);
    m_wake.wakeAll();
}

void CompressionWorker::cancelAll()
{
    QList<qint64> ids;
    {
        QMutexLocker locker(&m_lock);
        ids = m_folders.keys();
    }
    for (qint64 id : std::as_const(ids))
        cancel(id);
}

void CompressionWorker::setActive(bool active)
{
    QMutexLocker locker(&m_lock);
    m_active = active;
    m_wake.wakeAll();
}

void CompressionWorker::stop()
{
    {
        QMutexLocker locker(&m_lock);
        m_stopping = true;
        m_cancelCurrent = true;
        m_wake.wakeAll();
    }
    wait();
}

bool CompressionWorker::waitUntilActive()
{
    QMutexLocker locker(&m_lock);
    while (!m_active && !m_cancelCurrent.load())
        m_wake.wait(&m_lock);
    return !m_cancelCurrent.load();
}

void CompressionWorker::closeDropped()
{
    QList<int> fds;
    QList<qint64> ids;
    {
        QMutexLocker locker(&m_lock);
        fds = std::exchange(m_dropped, {});
        ids = std::exchange(m_droppedIds, {});
    }
    for (int fd : std::as_const(fds))
        ::close(fd);
    for (qint64 id : std::as_const(ids)) {
        m_tallies.remove(id);
        m_scannedWhole.remove(id);
    }
}

void CompressionWorker::saveCache(bool force)
{
    if (!m_cache.isDirty() && !force)
        return;
    // Entries of files not met since the start are dropped once every folder has been seen whole.
    bool prune = true;
    {
        QMutexLocker locker(&m_lock);
        for (auto it = m_folders.cbegin(); it != m_folders.cend(); ++it)
            prune = prune && m_scannedWhole.contains(it.key());
    }
    m_cache.save(prune && force);
    m_lastSave = nowMs();
}

void CompressionWorker::run()
{
    BtrfsCompressor::lowerThreadPriority();
    m_cache.load();
    m_lastSave = nowMs();
    bool pruned = false;
    for (;;) {
        Job job;
        {
            QMutexLocker locker(&m_lock);
            while (!m_stopping && (m_jobs.isEmpty() || !m_active) && m_dropped.isEmpty()) {
                // Nothing runs while nothing waits: the only timeout is a cache behind its files.
                if (!m_cache.isDirty() && pruned) {
                    m_wake.wait(&m_lock);
                    continue;
                }
                const qint64 left = m_lastSave + kCacheSaveMs - nowMs();
                if (left > 0 && !m_wake.wait(&m_lock, QDeadlineTimer(left)))
                    continue;
                if (left > 0)
                    continue;
                locker.unlock();
                saveCache(!pruned);
                pruned = true;
                locker.relock();
            }
            if (m_stopping)
                break;
            if (!m_jobs.isEmpty() && m_active) {
                job = m_jobs.takeFirst();
                m_current = job.id;
                m_cancelCurrent = false;
            }
        }
        closeDropped();
        if (job.id == 0)
            continue;
        runJob(job);
        if (job.whole && job.relative.isEmpty())
            pruned = false; // the next save may leave out what this pass did not meet
        QMutexLocker locker(&m_lock);
        m_current = 0;
    }
    closeDropped();
    saveCache(false);
}

void CompressionWorker::runJob(const Job &job)
{
    Folder folder;
    {
        QMutexLocker locker(&m_lock);
        folder = m_folders.value(job.id);
    }
    if (folder.fd < 0)
        return;
    FolderWalker walker(folder.fd, folder.path);
    Tally &tally = m_tallies[job.id];
    const qint64 now = nowMs();
    QHash<QByteArray, qint64> unsettledFolders; // and how long until they settle
    QList<QByteArray> todo;
    QList<QByteArray> todoFolders;
    qsizetype files = 0;
    QList<QByteArray> newSubfolders;
    // Looking at one folder only: its subfolders are checked against what is known of them.
    bool listing = !job.whole;

    auto visit = [&](const FolderWalker::Folder &seen) {
        if (!m_watch->isWatched(job.id, seen.relative)
            && m_watch->watch(job.id, seen.relative, seen.fd) == FolderWatch::Result::LimitReached) {
            QMutexLocker locker(&m_lock);
            auto it = m_folders.find(job.id);
            if (it != m_folders.end() && !std::exchange(it->limitTold, true))
                Q_EMIT watchLimitReached(job.id);
        }
        RescanCache::Figures figures;
        for (const FolderWalker::File &file : seen.files) {
            ++files;
            if (file.st.st_size <= CompressionModel::kBlockSize)
                continue; // fits in one block: nothing to gain
            if (const std::optional<RescanCache::Figures> known = m_cache.find(file.st, figures.stored)) {
                figures.savings += known->savings;
                figures.shared += known->shared;
                continue;
            }
            // The rules are asked only here: what a rescan recognises was asked about before.
            const QByteArray path = joined(seen.relative, seen.name(file));
            if (walker.isExcluded(path))
                continue;
            const qint64 written = qint64(file.st.st_mtim.tv_sec) * 1000 + file.st.st_mtim.tv_nsec / 1000000;
            const qint64 wait = written + SettleQueue::kSettleMs - now;
            if (wait > 0 && wait <= SettleQueue::kMaxWaitMs) {
                qint64 &longest = unsettledFolders[seen.relative];
                longest = std::max(longest, wait);
                continue;
            }
            todo.append(path);
            todoFolders.append(seen.relative);
        }
        tally.set(seen.relative, std::move(figures));
        if (listing) {
            // Folders that went away take their savings with them; new ones are walked whole.
            QSet<QByteArray> present;
            for (const QByteArray &name : seen.subfolders) {
                const QByteArray path = joined(seen.relative, name);
                present.insert(path);
                if (!m_watch->isWatched(job.id, path) || !tally.folders.contains(path))
                    newSubfolders.append(path);
            }
            QList<QByteArray> gone;
            for (auto it = tally.folders.cbegin(); it != tally.folders.cend(); ++it) {
                const QByteArray &path = it.key();
                const qsizetype slash = path.lastIndexOf('/');
                const QByteArray parent = slash < 0 ? QByteArray() : path.left(slash);
                if (!path.isEmpty() && parent == seen.relative && !present.contains(path))
                    gone.append(path);
            }
            for (const QByteArray &path : std::as_const(gone)) {
                tally.dropBelow(path);
                m_watch->unwatch(job.id, path);
            }
        }
        return true;
    };

    if (job.whole) {
        tally.dropBelow(job.relative);
        walker.walk(job.relative, visit);
    } else if (!walker.list(job.relative, visit)) {
        // The folder itself has gone; its parent's next look drops it.
        tally.dropBelow(job.relative);
    }
    for (const QByteArray &path : std::as_const(newSubfolders)) {
        tally.dropBelow(path);
        listing = false;
        walker.walk(path, visit);
    }
    for (auto it = unsettledFolders.cbegin(); it != unsettledFolders.cend(); ++it)
        Q_EMIT unsettled(job.id, it.key(), it.value());

    const qsizetype known = files - todo.size();
    FileCompressor compressor(folder.fd, folder.path, m_skipped, m_cancelCurrent);
    qsizetype done = 0;
    compressor.compress(
        todo, [this] { return waitUntilActive(); },
        [&](qsizetype index, const FileCompressor::Outcome &outcome) {
            ++done;
            const RescanCache::Figures figures{outcome.savings, outcome.shared, outcome.stored};
            if (outcome.settled)
                m_cache.insert(outcome.st, figures);
            tally.add(todoFolders[index], figures);
            Q_EMIT progress(job.id, quint32((known + done) * 100 / files),
                            quint64(std::max<qint64>(tally.total.savings, 0)));
        });
    const qsizetype unreadable = walker.unreadable().count + compressor.unreadable().count;
    if (unreadable > 0) {
        const int error =
            walker.unreadable().count > 0 ? walker.unreadable().firstError : compressor.unreadable().firstError;
        qCWarning(lcHelper, "%lld items in \"%s\" could not be opened (%s) and were left as they are",
                  static_cast<long long>(unreadable), qPrintable(QFile::decodeName(folder.path)), std::strerror(error));
    }
    if (m_cancelCurrent.load())
        return;
    const quint64 savings = quint64(std::max<qint64>(tally.total.savings, 0));
    // One line per pass over the whole folder; for a change, only when something failed.
    if ((job.whole && job.relative.isEmpty()) || compressor.report().anyFailed())
        qCInfo(lcHelper, "%s", qPrintable(compressor.report().summary(compressor.ranOutOfSpace())));
    if (compressor.report().sharedBytes() > 0)
        Q_EMIT sharedFound(job.id);
    if (compressor.ranOutOfSpace()) {
        const qint64 room = FreeSpaceGuard::room(folder.fd);
        Q_EMIT waitingForSpace(job.id,
                               quint32(std::min<qsizetype>((known + done) * 100 / std::max<qsizetype>(files, 1), 99)),
                               savings, quint64(qMax(FreeSpaceGuard::kMinRoom - room, FreeSpaceGuard::kMinRoom)));
        return;
    }
    if (job.whole && job.relative.isEmpty())
        m_scannedWhole.insert(job.id);
    QMutexLocker locker(&m_lock);
    if (!hasJob(job.id)) {
        locker.unlock();
        Q_EMIT finished(job.id, 100, savings, quint64(std::max<qint64>(tally.total.shared, 0)));
    }
}
