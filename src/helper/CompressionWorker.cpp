#include "helper/CompressionWorker.h"

#include "helper/BtrfsCompressor.h"
#include "helper/FreeSpaceGuard.h"
#include "helper/HelperLog.h"
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

CompressionWorker::CompressionWorker(QObject *parent)
    : QObject(parent)
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
    // Plans at the rewriting thread come back cancelled; the job ends once they have.
    m_job->cancelled = true;
    m_job->planning.reset();
    m_job->sorted.clear();
    m_walker.end();
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
    QElapsedTimer clock;
    clock.start();
    if (m_job->walking)
        walkSlice(clock);
    else if (!m_job->cancelled && !m_job->noSpace && m_pace.go)
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
    const bool more = job.next < job.todo.size() || job.planning || !job.sorted.empty();
    return more && m_pace.go && !job.cancelled && !job.noSpace && job.inFlight < kPlansAhead
        && job.bytesInFlight < kBytesAhead;
}

void CompressionWorker::beginJob()
{
    FolderJob job = m_jobs.front();
    m_jobs.pop_front();
    const QByteArray rootPath = currentPath(job.rootFd);
    m_job.emplace(job, rootPath);
    m_job->walkEnd.relative = job.relative;
    m_walker.begin(job.rootFd, rootPath, job.relative, job.whole);
    Q_EMIT jobStarted(job.tag, job.relative, job.whole);
}

void CompressionWorker::walkSlice(const QElapsedTimer &clock)
{
    Running &job = *m_job;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    while (clock.elapsed() < kSliceMs) {
        const std::optional<FolderWalker::Folder> folder = m_walker.next();
        if (!folder) {
            const FolderWalker::Unreadable unreadable = m_walker.unreadable();
            job.walkEnd.found = job.walkEnd.found || !job.seen.isEmpty();
            m_walker.end();
            job.walking = false;
            job.walkEnd.files = job.files;
            job.walkEnd.todo = job.todo.size();
            job.report.unreadable(unreadable.count, unreadable.firstError);
            // Low on room: everything is planned before anything is rewritten.
            job.low = FreeSpaceGuard::room(job.job.rootFd) < FreeSpaceGuard::kLowRoom;
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

void CompressionWorker::planSlice(const QElapsedTimer &clock)
{
    Running &job = *m_job;
    while (clock.elapsed() < kSliceMs && job.inFlight < kPlansAhead && job.bytesInFlight < kBytesAhead
           && !job.noSpace) {
        if (!job.planning) {
            if (job.next < job.todo.size()) {
                const Todo &todo = job.todo.at(job.next++);
                job.planning.emplace(FilePlan::open(job.job.tag, job.job.rootFd, todo.path, todo.folder, m_skipped));
            } else if (!job.sorted.empty()) {
                // Every file planned: those that free most first, each taken up again.
                FilePlanPtr plan = job.sorted.front();
                job.sorted.pop_front();
                if (plan->reopen(job.job.rootFd))
                    dispatch(plan);
                continue;
            } else {
                return;
            }
        }
        if (!job.planning->estimate(m_model, kSliceMs - clock.elapsed()))
            return; // a big file: on in the next slice
        planned(std::move(*job.planning));
        job.planning.reset();
        if (job.low && job.next == job.todo.size() && !job.planning)
            std::stable_sort(job.sorted.begin(), job.sorted.end(), [](const FilePlanPtr &a, const FilePlanPtr &b) {
                return a->estimated() > b->estimated();
            });
    }
}

void CompressionWorker::planned(FilePlan plan)
{
    Running &job = *m_job;
    if (!plan.isOpen()) {
        if (plan.error() != 0)
            job.report.unreadable(1, plan.error());
        return; // gone meanwhile: its folder's next look drops it
    }
    if (plan.skip()) {
        job.report.skipped(plan.path(), *plan.skip(), plan.knownSkip());
        done(plan, true);
        return;
    }
    job.report.shared(plan.figures().sharedPlain);
    if (!plan.ranges().isEmpty()) {
        FilePlanPtr shared = std::make_shared<FilePlan>(std::move(plan));
        if (job.low) {
            shared->closeFile();
            job.sorted.push_back(shared);
        } else {
            dispatch(shared);
        }
        return;
    }
    if (plan.hadCompressedData())
        job.report.alreadyCompressed();
    else if (plan.figures().sharedPlain == 0)
        job.report.wouldNotShrink();
    done(plan, true);
}

void CompressionWorker::dispatch(const FilePlanPtr &plan)
{
    Running &job = *m_job;
    // New files inherit the property from their folder; only a folder with plain data of its
    // own gets it: in a snapshot its metadata is shared too.
    if (!job.propertySet.contains(plan->folder())) {
        job.propertySet.append(plan->folder());
        const int folderFd =
            FolderWalker::openNoAtime(job.job.rootFd, plan->folder().isEmpty() ? "." : plan->folder().constData(),
                                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (folderFd >= 0) {
            BtrfsCompressor::ensureCompressionProperty(folderFd);
            ::close(folderFd);
        }
    }
    ++job.inFlight;
    job.bytesInFlight += ExtentMap::bytes(plan->ranges());
    Q_EMIT rewrite(plan);
}

void CompressionWorker::rewritten(const FilePlanPtr &plan)
{
    if (!m_job || m_job->job.tag.id != plan->tag().id || m_job->job.tag.generation != plan->tag().generation)
        return;
    Running &job = *m_job;
    --job.inFlight;
    job.bytesInFlight -= ExtentMap::bytes(plan->ranges());
    if (!job.cancelled) {
        switch (plan->result) {
        case FilePlan::Result::Rewritten:
            if (plan->verify(m_model, m_skipped)) {
                if (m_skipped.find(plan->status()) == SkippedFiles::Reason::StaysPlain)
                    job.report.skipped(plan->path(), SkippedFiles::Reason::StaysPlain, false);
                else
                    job.report.compressed();
                done(*plan, true);
            }
            break;
        case FilePlan::Result::InUse:
            job.report.inUse(); // tried again when it changes or at the next rescan
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
                job.report.skipped(plan->path(), SkippedFiles::Reason::SwapFile, false);
                done(*plan, true);
            } else {
                job.report.failed(plan->path(), plan->resultError);
                done(*plan, false);
            }
            break;
        case FilePlan::Result::Pending:
        case FilePlan::Result::Cancelled:
            break;
        }
    }
    schedulePump();
}

void CompressionWorker::done(FilePlan &plan, bool settled)
{
    // Settled: done for as long as the file stays as it is now.
    struct stat now { };
    if (settled && ::fstat(plan.fd(), &now) == 0) {
        m_cache.insert(now, plan.figures());
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
    return job.next >= job.todo.size() && !job.planning && job.sorted.empty();
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
    job.report.logUnreadable();
    // One line per pass over the whole folder; for a change, only when something failed.
    if ((job.job.whole && job.job.relative.isEmpty()) || job.report.anyFailed())
        qCInfo(lcHelper, "%s", qPrintable(job.report.summary(job.noSpace)));
    end.sharedFound = job.report.sharedBytes() > 0;
    Q_EMIT jobEnded(job.job.tag, end);
}
