#include "helper/CompressionWorker.h"

#include "common/VTExclusionRules.h"
#include "helper/BtrfsCompressor.h"
#include "helper/CompressionModel.h"
#include "helper/ExtentMap.h"
#include "helper/FolderReport.h"
#include "helper/FreeSpaceGuard.h"

#include <QFile>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <thread>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Items of a folder that could not be opened, told once per folder rather than lost silently.
struct Unreadable {
    qsizetype count = 0;
    int firstError = 0;
    void add(int error)
    {
        if (count++ == 0)
            firstError = error;
    }
};

// Reading must not change access times: in a snapshotted subvolume every inode touched is
// metadata copied away from the snapshot. Only the owner may ask for that.
int openNoAtime(int dirFd, const char *path, int flags)
{
    int fd = ::openat(dirFd, path, flags | O_CLOEXEC | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::openat(dirFd, path, flags | O_CLOEXEC);
    return fd;
}

int openForReading(int folderFd, const QByteArray &path)
{
    return openNoAtime(folderFd, path.constData(), O_RDONLY | O_NOFOLLOW);
}

// Sets the compression property on the folder holding path, once.
void setFolderProperty(int folderFd, const QByteArray &path, QSet<QByteArray> *done)
{
    const QByteArray folder = path.left(qMax(path.lastIndexOf('/'), 0));
    if (done->contains(folder))
        return;
    done->insert(folder);
    const int fd = openNoAtime(folderFd, folder.isEmpty() ? "." : folder.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd >= 0) {
        BtrfsCompressor::setCompressionProperty(fd);
        ::close(fd);
    }
}

// Every regular file below folder (relative byte paths), not crossing into other file systems.
QList<QByteArray> collectFiles(int folderFd, const QByteArray &folder, Unreadable *unreadable)
{
    QList<QByteArray> files;
    struct stat top {};
    ::fstat(folderFd, &top);
    QList<QByteArray> pending{QByteArray()};
    while (!pending.isEmpty()) {
        const QByteArray relative = pending.takeLast();
        const int fd = openNoAtime(folderFd, relative.isEmpty() ? "." : relative.constData(),
                                   O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (fd < 0) {
            // Gone meanwhile is no fault; too deep to name or not ours to read is.
            if (errno != ENOENT)
                unreadable->add(errno);
            continue;
        }
        struct stat st {};
        if (::fstat(fd, &st) != 0 || st.st_dev != top.st_dev) {
            ::close(fd);
            continue;
        }
        DIR *dir = ::fdopendir(fd);
        if (!dir) {
            ::close(fd);
            continue;
        }
        while (const struct dirent *entry = ::readdir(dir)) {
            const QByteArray name(entry->d_name);
            if (name == "." || name == "..")
                continue;
            const QByteArray path = relative.isEmpty() ? name : relative + '/' + name;
            unsigned char type = entry->d_type;
            if (type == DT_UNKNOWN) {
                struct stat child {};
                if (::fstatat(folderFd, path.constData(), &child, AT_SYMLINK_NOFOLLOW) != 0)
                    continue;
                type = S_ISDIR(child.st_mode) ? DT_DIR : S_ISREG(child.st_mode) ? DT_REG : DT_UNKNOWN;
            }
            // Names may be any bytes; the rules speak Unicode, so decode as the file system would.
            if (VTExclusionRules::mustExcludePath(QFile::decodeName(folder + '/' + path)))
                continue;
            if (type == DT_DIR)
                pending.append(path);
            else if (type == DT_REG)
                files.append(path);
        }
        ::closedir(dir);
    }
    return files;
}

// Estimates handed from the estimating thread to the compressing one, a few files ahead.
class EstimateQueue
{
public:
    struct Entry {
        QByteArray path;
        qint64 estimate = 0; // what rewriting ranges would save
        QList<ExtentMap::Range> ranges; // the file's own plain data
        qint64 encodedSavings = 0; // what the data already stored compressed saves
        bool encoded = false;
        qint64 shared = 0;
        std::optional<SkippedFiles::Reason> skip;
        bool knownSkip = false;
        int error = 0; // why the file could not be opened, if it could not
    };
    static constexpr qsizetype kAhead = 32;

    // False once the consumer has closed the queue.
    bool push(Entry entry)
    {
        QMutexLocker locker(&m_lock);
        while (!m_closed && m_entries.size() >= kAhead)
            m_changed.wait(&m_lock);
        if (m_closed)
            return false;
        m_entries.append(std::move(entry));
        m_changed.wakeAll();
        return true;
    }
    // Nothing once every file has been handed over or the queue was closed.
    std::optional<Entry> pop(qsizetype expected)
    {
        QMutexLocker locker(&m_lock);
        while (!m_closed && m_entries.isEmpty() && m_popped < expected)
            m_changed.wait(&m_lock);
        if (m_entries.isEmpty())
            return std::nullopt;
        ++m_popped;
        m_changed.wakeAll();
        return m_entries.takeFirst();
    }
    void close()
    {
        QMutexLocker locker(&m_lock);
        m_closed = true;
        m_changed.wakeAll();
    }

private:
    QMutex m_lock;
    QWaitCondition m_changed;
    QList<Entry> m_entries;
    qsizetype m_popped = 0;
    bool m_closed = false;
};


enum class Outcome { Rewritten, NotSaved, NoSpace };

Outcome rewrite(int fd, const EstimateQueue::Entry &entry, SkippedFiles &skipped, const std::atomic<bool> &cancel,
                FolderReport *report)
{
    switch (BtrfsCompressor::compressRanges(fd, entry.ranges, cancel)) {
    case BtrfsCompressor::Result::NoSpace:
        return Outcome::NoSpace;
    case BtrfsCompressor::Result::InUse:
        report->inUse();
        return Outcome::NotSaved;
    case BtrfsCompressor::Result::Failed: {
        const int error = errno;
        struct stat st {};
        // An active swap file refuses to have its blocks moved.
        if (error == ETXTBSY && ::fstat(fd, &st) == 0) {
            skipped.add(st, SkippedFiles::Reason::SwapFile);
            report->skipped(entry.path, SkippedFiles::Reason::SwapFile, false);
        } else {
            report->failed(entry.path, error);
        }
        return Outcome::NotSaved;
    }
    case BtrfsCompressor::Result::Compressed:
        break;
    }
    return Outcome::Rewritten;
}

// A rewrite can succeed and leave the data as it was (btrfs found it would not shrink, or will
// not compress this file at all): such a file saves nothing and is remembered, so it is not
// rewritten on every pass. Checked once the rewrite is on disk: before, FIEMAP may still show
// the old extents. Returns the bytes saved.
qint64 verify(int folderFd, const EstimateQueue::Entry &entry, SkippedFiles &skipped, FolderReport *report)
{
    const int fd = openForReading(folderFd, entry.path);
    if (fd < 0)
        return 0;
    ExtentMap after;
    struct stat st {};
    const bool read = after.read(fd) && ::fstat(fd, &st) == 0;
    ::close(fd);
    const qint64 encoded = read ? after.encodedBytesIn(entry.ranges) : 0;
    if (encoded > 0) {
        report->compressed();
        // Only what btrfs really stored compressed counts.
        const qint64 all = ExtentMap::bytes(entry.ranges);
        return all > 0 ? qint64(double(entry.estimate) * double(qMin(encoded, all)) / double(all)) : 0;
    }
    if (read) {
        skipped.add(st, SkippedFiles::Reason::StaysPlain);
        report->skipped(entry.path, SkippedFiles::Reason::StaysPlain, false);
    }
    return 0;
}

// Rewritten files are checked in batches of about this much data, after one wait for all of it.
constexpr qint64 kVerifyBatch = 64 * 1024 * 1024;

} // namespace

CompressionWorker::CompressionWorker(QObject *parent)
    : QThread(parent)
{
}

CompressionWorker::~CompressionWorker()
{
    stop();
}

void CompressionWorker::enqueue(qint64 id, const QByteArray &folder)
{
    QMutexLocker locker(&m_lock);
    for (const Job &job : std::as_const(m_jobs)) {
        if (job.id == id)
            return;
    }
    if (m_current == id)
        return;
    m_jobs.append({id, folder});
    m_wake.wakeAll();
}

void CompressionWorker::cancel(qint64 id)
{
    QMutexLocker locker(&m_lock);
    m_jobs.removeIf([id](const Job &job) { return job.id == id; });
    if (m_current == id)
        m_cancelCurrent = true;
    m_wake.wakeAll();
}

void CompressionWorker::cancelAll()
{
    QMutexLocker locker(&m_lock);
    m_jobs.clear();
    if (m_current != 0)
        m_cancelCurrent = true;
    m_wake.wakeAll();
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

bool CompressionWorker::cancelled(qint64) const
{
    return m_cancelCurrent.load();
}

bool CompressionWorker::waitUntilActive(qint64 id)
{
    QMutexLocker locker(&m_lock);
    while (!m_active && !m_cancelCurrent.load())
        m_wake.wait(&m_lock);
    return !cancelled(id);
}

void CompressionWorker::run()
{
    BtrfsCompressor::lowerThreadPriority();
    for (;;) {
        Job job;
        {
            QMutexLocker locker(&m_lock);
            while (!m_stopping && (m_jobs.isEmpty() || !m_active))
                m_wake.wait(&m_lock);
            if (m_stopping)
                return;
            job = m_jobs.takeFirst();
            m_current = job.id;
            m_cancelCurrent = false;
        }
        compressFolder(job);
        QMutexLocker locker(&m_lock);
        m_current = 0;
    }
}

void CompressionWorker::compressFolder(const Job &job)
{
    const int folderFd = openNoAtime(AT_FDCWD, job.folder.constData(), O_RDONLY | O_DIRECTORY);
    if (folderFd < 0) {
        Q_EMIT failed(job.id, QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    Unreadable unreadable;
    const QList<QByteArray> files = collectFiles(folderFd, job.folder, &unreadable);

    // The estimate of the next files is worked out on a second thread while the file system
    // rewrites the current one: the two together take little longer than the rewrite alone.
    EstimateQueue estimates;
    std::thread estimator([&] {
        BtrfsCompressor::lowerThreadPriority();
        CompressionModel model;
        for (const QByteArray &path : files) {
            EstimateQueue::Entry entry;
            entry.path = path;
            const int fd = openForReading(folderFd, path);
            struct stat st {};
            entry.error = fd < 0 && errno != ENOENT ? errno : 0;
            if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
                entry.skip = m_skipped.find(st);
                entry.knownSkip = entry.skip.has_value();
                if (!entry.skip)
                    entry.skip = SkippedFiles::cannotCompress(fd);
                ExtentMap map;
                if (entry.skip) {
                    m_skipped.add(st, *entry.skip);
                } else if (map.read(fd)) {
                    entry.ranges = map.plainOwn();
                    entry.shared = map.plainShared();
                    entry.encoded = !map.encoded().isEmpty();
                    if (!entry.ranges.isEmpty())
                        entry.estimate = model.savingsForRanges(fd, entry.ranges);
                    if (entry.encoded)
                        entry.encodedSavings = qMax(model.savingsForRanges(fd, map.encoded()), qint64(0));
                }
            }
            if (fd >= 0)
                ::close(fd);
            if (!estimates.push(std::move(entry)))
                return;
        }
    });

    // With little room the files that free most go first, and each step is small.
    const bool low = FreeSpaceGuard::room(folderFd) < FreeSpaceGuard::kLowRoom;
    QList<EstimateQueue::Entry> sorted;
    if (low) {
        while (std::optional<EstimateQueue::Entry> entry = estimates.pop(files.size()))
            sorted.append(std::move(*entry));
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const auto &a, const auto &b) { return a.estimate < b.estimate; });
    }
    auto next = [&]() -> std::optional<EstimateQueue::Entry> {
        if (!low)
            return estimates.pop(files.size());
        if (sorted.isEmpty())
            return std::nullopt;
        return sorted.takeLast();
    };

    FolderReport report(job.folder);
    QSet<QByteArray> propertySet;
    setFolderProperty(folderFd, QByteArray(), &propertySet);
    quint64 savings = 0;
    qsizetype done = 0;
    bool noSpace = false;
    QList<EstimateQueue::Entry> unverified;
    qint64 unverifiedBytes = 0;
    auto verifyAll = [&] {
        if (unverified.isEmpty())
            return;
        ::syncfs(folderFd);
        for (const EstimateQueue::Entry &rewritten : std::as_const(unverified)) {
            savings += quint64(verify(folderFd, rewritten, m_skipped, &report));
        }
        unverified.clear();
        unverifiedBytes = 0;
    };
    while (const std::optional<EstimateQueue::Entry> entry = next()) {
        if (!waitUntilActive(job.id))
            break;
        if (entry->error != 0)
            unreadable.add(entry->error);
        report.shared(entry->shared);
        // New files inherit the property from their folder. A folder without plain data of its
        // own is left unchanged: in a snapshot its metadata is shared too.
        if (!entry->ranges.isEmpty())
            setFolderProperty(folderFd, entry->path, &propertySet);
        savings += quint64(entry->encodedSavings);
        if (entry->skip) {
            report.skipped(entry->path, *entry->skip, entry->knownSkip);
        } else if (entry->estimate > 0) {
            const int fd = openForReading(folderFd, entry->path);
            if (fd < 0 && errno != ENOENT)
                unreadable.add(errno);
            if (fd >= 0) {
                const Outcome outcome = rewrite(fd, *entry, m_skipped, m_cancelCurrent, &report);
                noSpace = outcome == Outcome::NoSpace;
                if (outcome == Outcome::Rewritten) {
                    unverified.append(*entry);
                    for (const ExtentMap::Range &range : entry->ranges)
                        unverifiedBytes += range.length;
                }
                ::close(fd);
            }
        } else if (entry->encoded) {
            report.alreadyCompressed();
        } else if (entry->shared == 0) {
            report.wouldNotShrink();
        }
        if (noSpace || cancelled(job.id))
            break;
        if (unverifiedBytes >= kVerifyBatch)
            verifyAll();
        ++done;
        // 100 is for the end, when every file has been seen to.
        Q_EMIT progress(job.id, quint32(qMin<qsizetype>(done * 100 / files.size(), 99)), savings);
    }
    verifyAll();
    estimates.close();
    estimator.join();
    const qint64 room = FreeSpaceGuard::room(folderFd);
    ::close(folderFd);
    if (unreadable.count > 0) {
        qWarning("VantorHelper: %lld items in \"%s\" could not be opened (%s) and were left as they are",
                 static_cast<long long>(unreadable.count), qPrintable(QFile::decodeName(job.folder)),
                 std::strerror(unreadable.firstError));
    }
    if (cancelled(job.id))
        return;
    qInfo("VantorHelper: %s", qPrintable(report.summary(noSpace)));
    if (report.sharedBytes() > 0)
        Q_EMIT sharedLeft(job.id, quint64(report.sharedBytes()));
    if (noSpace)
        Q_EMIT waitingForSpace(job.id, quint32(qMin<qsizetype>(done * 100 / qMax<qsizetype>(files.size(), 1), 99)),
                               savings, quint64(qMax(FreeSpaceGuard::kMinRoom - room, FreeSpaceGuard::kMinRoom)));
    else
        Q_EMIT finished(job.id, 100, savings);
}
