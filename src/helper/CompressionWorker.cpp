#include "helper/CompressionWorker.h"

#include "helper/BtrfsCompressor.h"
#include "helper/FileCompressor.h"
#include "helper/FreeSpaceGuard.h"
#include "helper/SavingsTally.h"
#include "helper/SettleQueue.h"

#include <QDateTime>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

QByteArray joined(const QByteArray &folder, const QByteArray &name)
{
    return folder.isEmpty() ? name : folder + '/' + name;
}

// The folder's present path, wherever it has moved: for the exclusion rules and the log.
QByteArray currentPath(int fd)
{
    char buffer[PATH_MAX];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(fd);
    const ssize_t size = ::readlink(link.constData(), buffer, sizeof buffer);
    return size > 0 ? QByteArray(buffer, size) : QByteArray();
}

// Folders found in one slice go to the main thread together.
constexpr qsizetype kBatch = 256;

} // namespace

CompressionWorker::CompressionWorker(const QList<FileCompressor *> &compressors, QObject *parent)
    : QObject(parent)
    , m_compressors(compressors)
    , m_loads(compressors.size(), 0)
    , m_cacheTimer(this) // moves to the thread with its owner
{
    m_cacheTimer.setSingleShot(true);
    m_cacheTimer.setInterval(kCacheSaveMs);
    connect(&m_cacheTimer, &QTimer::timeout, this, [this] { saveCache(false); });
}

CompressionWorker::~CompressionWorker()
{
    for (const FolderJob &job : m_jobs)
        ::close(job.rootFd);
    if (m_job)
        ::close(m_job->job.rootFd);
}

void CompressionWorker::start()
{
    BtrfsCompressor::lowerThreadPriority();
    m_cache.load();
}

void CompressionWorker::enqueue(const FolderJob &job)
{
    for (const FolderJob &queued : m_jobs) {
        // A queued look at a folder above covers this one.
        const bool covers = queued.tag.id == job.tag.id && queued.tag.generation == job.tag.generation
            && (queued.relative == job.relative
                || (queued.whole && SavingsTally::isBelow(job.relative, queued.relative)))
            && (queued.whole || !job.whole);
        if (covers) {
            ::close(job.rootFd);
            JobEnd end;
            end.merged = true;
            Q_EMIT jobEnded(job.tag, end);
            return;
        }
    }
    m_jobs.push_back(job);
    schedulePump();
}

void CompressionWorker::cancel(qint64 id)
{
    for (auto it = m_jobs.begin(); it != m_jobs.end();) {
        if (it->tag.id == id) {
            ::close(it->rootFd);
            it = m_jobs.erase(it);
        } else {
            ++it;
        }
    }
    if (!m_job || m_job->job.tag.id != id)
        return;
    // Plans at the compressors come back cancelled; the job ends once they have. Told from here,
    // the cancel reaches each compressor after every plan this thread handed it.
    m_job->cancelled = true;
    m_job->walking = false;
    m_job->sorted.clear();
    m_walker.end();
    for (FileCompressor *compressor : std::as_const(m_compressors))
        QMetaObject::invokeMethod(
            compressor, [compressor, id] { compressor->cancel(id); }, Qt::QueuedConnection);
    schedulePump();
}

void CompressionWorker::setPace(const Pacer::Pace &pace)
{
    m_pace = pace;
    schedulePump();
}

void CompressionWorker::saveCache(bool prune)
{
    m_cache.save(prune);
}

void CompressionWorker::finish()
{
    if (m_job) {
        m_walker.end();
        ::close(m_job->job.rootFd);
        m_job.reset();
    }
    saveCache(false);
}

void CompressionWorker::cacheChanged()
{
    if (!m_cacheTimer.isActive())
        m_cacheTimer.start();
}

void CompressionWorker::schedulePump()
{
    if (std::exchange(m_pumpScheduled, true))
        return;
    QMetaObject::invokeMethod(this, &CompressionWorker::pump, Qt::QueuedConnection);
}

void CompressionWorker::pump()
{
    m_pumpScheduled = false;
    if (!m_job) {
        if (m_jobs.empty())
            return;
        beginJob();
    }
    // Files found are handed on while the walk goes on, so the compressors start at once.
    QElapsedTimer clock;
    clock.start();
    if (m_job->walking)
        walkSlice(clock);
    if (!m_job->cancelled && !m_job->noSpace && m_pace.go)
        planSlice(clock); // while held, nothing is read for estimates either
    sendProgress();
    if (jobDone())
        endJob();
    // More to do now: another slice after whatever else waits.
    if (m_job ? canGoOn() : !m_jobs.empty())
        schedulePump();
}

bool CompressionWorker::canGoOn() const
{
    const Running &job = *m_job;
    if (job.walking)
        return true;
    const bool more = job.next < job.todo.size() || (job.inFlight == 0 && !job.sorted.empty());
    return more && m_pace.go && !job.cancelled && !job.noSpace && freeCompressor() >= 0;
}

void CompressionWorker::beginJob()
{
    FolderJob job = m_jobs.front();
    m_jobs.pop_front();
    const QByteArray rootPath = currentPath(job.rootFd);
    m_job.emplace(job, rootPath);
    m_job->walkEnd.relative = job.relative;
    m_walker.begin(job.rootFd, rootPath, job.relative, job.whole);
    // Low on room: everything is estimated before anything is rewritten.
    m_job->low = FreeSpaceGuard::room(job.rootFd) < FreeSpaceGuard::kLowRoom;
    Q_EMIT jobStarted(job.tag, job.relative, job.whole);
}

void CompressionWorker::walkSlice(const QElapsedTimer &clock)
{
    Running &job = *m_job;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    // Half a slice: the other half hands on what was found.
    while (clock.elapsed() < kSliceMs / 2) {
        const std::optional<FolderWalker::Folder> folder = m_walker.next();
        if (!folder) {
            job.report.leftOut(m_walker.leftOut());
            job.walkEnd.found = job.walkEnd.found || !job.seen.isEmpty();
            m_walker.end();
            job.walking = false;
            job.walkEnd.files = job.files;
            job.walkEnd.todo = job.todo.size();
            Q_EMIT foldersSeen(job.job.tag, std::exchange(job.seen, {}));
            Q_EMIT walked(job.job.tag, job.walkEnd);
            return;
        }
        SeenFolder seen{folder->relative, {}, !job.job.whole, job.job.whole ? QList<QByteArray>() : folder->subfolders};
        for (const FolderWalker::File &file : folder->files) {
            ++job.files;
            if (file.st.st_size <= CompressionModel::kBlockSize)
                continue; // fits in one block: nothing to gain
            if (const std::optional<RescanCache::Figures> known = m_cache.find(file.st, seen.known.extents)) {
                seen.known.inlineSavings += known->inlineSavings;
                seen.known.sharedPlain += known->sharedPlain;
                continue;
            }
            // The rules are asked only here: what a rescan recognises was asked about before.
            const QByteArray path = joined(folder->relative, folder->name(file));
            if (m_walker.isExcluded(path))
                continue;
            const qint64 written = qint64(file.st.st_mtim.tv_sec) * 1000 + file.st.st_mtim.tv_nsec / 1000000;
            const qint64 wait = written + SettleQueue::kSettleMs - now;
            if (wait > 0 && wait <= SettleQueue::kMaxWaitMs) {
                qint64 &longest = job.walkEnd.unsettled[folder->relative];
                longest = std::max(longest, wait);
                continue;
            }
            job.todo.append({path, folder->relative});
        }
        job.seen.append(std::move(seen));
        job.walkEnd.found = true;
        if (job.seen.size() >= kBatch)
            Q_EMIT foldersSeen(job.job.tag, std::exchange(job.seen, {}));
    }
    if (!job.seen.isEmpty())
        Q_EMIT foldersSeen(job.job.tag, std::exchange(job.seen, {}));
}

int CompressionWorker::freeCompressor() const
{
    int best = -1;
    const int usable = std::min<int>(m_pace.parallel, int(m_compressors.size()));
    for (int i = 0; i < usable; ++i) {
        if (m_loads.at(i) < kQueuedPerCompressor && (best < 0 || m_loads.at(i) < m_loads.at(best)))
            best = i;
    }
    return best;
}

void CompressionWorker::planSlice(const QElapsedTimer &clock)
{
    Running &job = *m_job;
    while (clock.elapsed() < kSliceMs && !job.noSpace) {
        const int compressor = freeCompressor();
        if (compressor < 0)
            return;
        if (job.next < job.todo.size()) {
            const Todo &todo = job.todo.at(job.next++);
            FilePlanPtr plan = FilePlan::open(job.job.tag, job.job.rootFd, todo.path, todo.folder, m_skipped);
            if (!handledAtOnce(*plan))
                dispatch(compressor, plan, job.low);
            continue;
        }
        // A nearly full disk: every file estimated, then those that free most first, one at a time.
        if (!job.low || job.walking || job.inFlight > 0 || job.sorted.empty())
            return;
        if (!job.sortedOnce) {
            job.sortedOnce = true;
            std::stable_sort(job.sorted.begin(), job.sorted.end(), [](const FilePlanPtr &a, const FilePlanPtr &b) {
                return a->estimated() > b->estimated();
            });
        }
        FilePlanPtr plan = job.sorted.front();
        job.sorted.pop_front();
        if (plan->reopen(job.job.rootFd))
            dispatch(compressor, plan, false);
    }
}

bool CompressionWorker::handledAtOnce(FilePlan &plan)
{
    Running &job = *m_job;
    if (!plan.isOpen()) {
        if (plan.error() != 0)
            job.report.leftAlone(plan.path(), FolderReport::Reason::Unreadable, plan.error());
        return true; // gone meanwhile: its folder's next look drops it
    }
    if (!plan.skip())
        return false;
    job.report.skipped(plan.path(), *plan.skip());
    done(plan, true);
    return true;
}

void CompressionWorker::dispatch(int compressor, const FilePlanPtr &plan, bool estimateOnly)
{
    Running &job = *m_job;
    ++job.inFlight;
    ++m_loads[compressor];
    plan->compressor = compressor;
    QMetaObject::invokeMethod(
        m_compressors.at(compressor),
        [target = m_compressors.at(compressor), plan, estimateOnly] { target->take(plan, estimateOnly); },
        Qt::QueuedConnection);
}

void CompressionWorker::handed(const FilePlanPtr &plan)
{
    --m_loads[plan->compressor];
    schedulePump();
    if (!m_job || m_job->job.tag.id != plan->tag().id || m_job->job.tag.generation != plan->tag().generation)
        return;
    Running &job = *m_job;
    --job.inFlight;
    if (job.cancelled || plan->result == FilePlan::Result::Cancelled)
        return;
    switch (plan->result) {
    case FilePlan::Result::Pending:
        // Set aside to be rewritten later, when it is counted.
        if (job.low && !plan->ranges().isEmpty() && !job.sortedOnce) {
            plan->closeFile();
            job.sorted.push_back(plan);
            break;
        }
        job.report.shared(plan->figures().sharedPlain);
        if (plan->hadCompressedData()) {
            job.report.alreadyCompressed();
            done(*plan, true);
        } else {
            if (plan->figures().sharedPlain == 0)
                job.report.wouldNotShrink();
            done(*plan, true);
        }
        break;
    case FilePlan::Result::Rewritten:
        job.report.shared(plan->figures().sharedPlain);
        // A rewrite can succeed and leave the data as it was: such a file is remembered, so it
        // is not rewritten on every pass.
        if (plan->staysPlain()) {
            m_skipped.add(plan->status(), SkippedFiles::Reason::StaysPlain);
            job.report.skipped(plan->path(), SkippedFiles::Reason::StaysPlain);
        } else {
            job.report.compressed();
            giveFolderProperty(plan->folder());
        }
        done(*plan, true);
        break;
    case FilePlan::Result::InUse:
        // Tried again when it changes or at the next rescan.
        job.report.leftAlone(plan->path(), FolderReport::Reason::InUse);
        done(*plan, false);
        break;
    case FilePlan::Result::NoSpace:
        job.noSpace = true;
        done(*plan, false);
        break;
    case FilePlan::Result::Failed:
        // An active swap file refuses to have its blocks moved.
        if (plan->resultError == ETXTBSY) {
            m_skipped.add(plan->status(), SkippedFiles::Reason::SwapFile);
            job.report.skipped(plan->path(), SkippedFiles::Reason::SwapFile);
            done(*plan, true);
        } else {
            job.report.leftAlone(plan->path(), FolderReport::Reason::Failed, plan->resultError);
            done(*plan, false);
        }
        break;
    case FilePlan::Result::Cancelled:
        break;
    }
}

void CompressionWorker::giveFolderProperty(const QByteArray &folder)
{
    // New files inherit the property from their folder; only a folder with data of its own
    // gets it: in a snapshot its metadata is shared too.
    Running &job = *m_job;
    if (job.propertySet.contains(folder))
        return;
    job.propertySet.insert(folder);
    const int fd = FolderWalker::openNoAtime(job.job.rootFd, folder.isEmpty() ? "." : folder.constData(),
                                             O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd >= 0) {
        BtrfsCompressor::ensureCompressionProperty(fd);
        ::close(fd);
    }
}

void CompressionWorker::done(FilePlan &plan, bool settled)
{
    // Settled: done for as long as the file stays as it was when its figures were taken; one
    // written to since no longer matches, and is looked at again.
    if (settled) {
        m_cache.insert(plan.status(), plan.figures());
        cacheChanged();
    }
    m_job->done.append({plan.folder(), plan.figures()});
}

void CompressionWorker::sendProgress()
{
    if (m_job && !m_job->done.isEmpty())
        Q_EMIT filesDone(m_job->job.tag, std::exchange(m_job->done, {}));
}

bool CompressionWorker::jobDone() const
{
    const Running &job = *m_job;
    if (job.walking || job.inFlight > 0)
        return false;
    if (job.cancelled || job.noSpace)
        return true;
    return job.next >= job.todo.size() && job.sorted.empty();
}

void CompressionWorker::endJob()
{
    Running job = std::move(*m_job);
    m_job.reset();
    JobEnd end;
    if (job.noSpace)
        end.bytesToFree =
            qMax(FreeSpaceGuard::kMinRoom - FreeSpaceGuard::room(job.job.rootFd), FreeSpaceGuard::kMinRoom);
    ::close(job.job.rootFd);
    if (job.cancelled)
        return;
    end.sharedFound = job.report.sharedBytes() > 0;
    end.report = std::move(job.report);
    Q_EMIT jobEnded(job.job.tag, end);
}
