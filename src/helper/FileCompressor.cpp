#include "helper/FileCompressor.h"

#include "helper/BtrfsCompressor.h"
#include "btrfs/CompressionModel.h"
#include "btrfs/ExtentMap.h"
#include "helper/FreeSpaceGuard.h"
#include "btrfs/SkippedFiles.h"

#include <QMutex>
#include <QWaitCondition>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <thread>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Estimates handed from the estimating thread to the compressing one, a few files ahead.
class EstimateQueue
{
public:
    struct Entry {
        qsizetype index = 0;
        QByteArray path;
        qint64 estimate = 0; // what rewriting ranges would save
        QList<ExtentMap::Range> ranges; // the file's own plain data
        qint64 encodedSavings = 0; // what the data already stored inline compressed saves
        QList<ExtentMap::Stored> stored; // and each extent already stored compressed
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

enum class Rewrite { Rewritten, NotSaved, NoSpace };

Rewrite rewrite(int fd, const EstimateQueue::Entry &entry, SkippedFiles &skipped, const std::atomic<bool> &cancel,
                FolderReport *report)
{
    switch (BtrfsCompressor::compressRanges(fd, entry.ranges, cancel)) {
    case BtrfsCompressor::Result::NoSpace:
        return Rewrite::NoSpace;
    case BtrfsCompressor::Result::InUse:
        report->inUse();
        return Rewrite::NotSaved;
    case BtrfsCompressor::Result::Failed: {
        const int error = errno;
        struct stat st { };
        // An active swap file refuses to have its blocks moved.
        if (error == ETXTBSY && ::fstat(fd, &st) == 0) {
            skipped.add(st, SkippedFiles::Reason::SwapFile);
            report->skipped(entry.path, SkippedFiles::Reason::SwapFile, false);
        } else {
            report->failed(entry.path, error);
        }
        return Rewrite::NotSaved;
    }
    case BtrfsCompressor::Result::Compressed:
        break;
    }
    return Rewrite::Rewritten;
}

// A rewrite can succeed and leave the data as it was (btrfs found it would not shrink, or will
// not compress this file at all): such a file saves nothing and is remembered, so it is not
// rewritten on every pass. Checked once the rewrite is on disk: before, FIEMAP may still show
// the old extents. Returns the bytes saved outside stored, which gets the new extents; st is
// the file's status after all.
qint64 verify(int fd, const EstimateQueue::Entry &entry, SkippedFiles &skipped, FolderReport *report, struct stat &st,
              QList<ExtentMap::Stored> &stored)
{
    ExtentMap after;
    const bool read = after.read(fd) && ::fstat(fd, &st) == 0;
    // Ranges read while the data was still being written may reach past its last block.
    QList<ExtentMap::Range> ranges;
    const qint64 end = CompressionModel::roundUpToBlock(st.st_size);
    for (const ExtentMap::Range &range : entry.ranges) {
        if (range.start < end)
            ranges.append({range.start, qMin(range.length, end - range.start)});
    }
    const qint64 encoded = read ? after.encodedBytesIn(ranges) : 0;
    if (encoded > 0) {
        report->compressed();
        // Only what btrfs really stored compressed counts, each new extent its share.
        const qint64 all = ExtentMap::bytes(ranges);
        auto share = [&](qint64 bytes) { return qint64(double(entry.estimate) * double(bytes) / double(all)); };
        qint64 placed = 0;
        for (const ExtentMap::Placed &extent : after.placed()) {
            if (const qint64 bytes = ExtentMap::overlap(extent.range, ranges); bytes > 0) {
                stored.append({extent.physical, share(bytes)});
                placed += bytes;
            }
        }
        return share(qMin(encoded, all) - qMin(placed, all));
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

FileCompressor::FileCompressor(int rootFd, const QByteArray &rootPath, SkippedFiles &skipped,
                               const std::atomic<bool> &cancel)
    : m_rootFd(rootFd)
    , m_skipped(skipped)
    , m_cancel(cancel)
    , m_report(rootPath)
{
}

void FileCompressor::compress(const QList<QByteArray> &paths, const MayGoOn &mayGoOn, const Done &done)
{
    auto openForReading = [this](const QByteArray &path) {
        return FolderWalker::openNoAtime(m_rootFd, path.constData(), O_RDONLY | O_NOFOLLOW);
    };
    EstimateQueue estimates;
    std::thread estimator([&] {
        BtrfsCompressor::lowerThreadPriority();
        CompressionModel model;
        for (qsizetype i = 0; i < paths.size(); ++i) {
            EstimateQueue::Entry entry;
            entry.index = i;
            entry.path = paths[i];
            const int fd = openForReading(paths[i]);
            struct stat st { };
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
                    if (!map.unplaced().isEmpty())
                        entry.encodedSavings = qMax(model.savingsForRanges(fd, map.unplaced()), qint64(0));
                    for (const ExtentMap::Placed &extent : map.placed())
                        entry.stored.append(
                            {extent.physical, qMax(model.savingsForRanges(fd, {extent.range}), qint64(0))});
                }
            }
            if (fd >= 0)
                ::close(fd);
            if (!estimates.push(std::move(entry)))
                return;
        }
    });

    // With little room the files that free most go first, and each step is small.
    const bool low = FreeSpaceGuard::room(m_rootFd) < FreeSpaceGuard::kLowRoom;
    QList<EstimateQueue::Entry> sorted;
    if (low) {
        while (std::optional<EstimateQueue::Entry> entry = estimates.pop(paths.size()))
            sorted.append(std::move(*entry));
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const auto &a, const auto &b) { return a.estimate < b.estimate; });
    }
    auto next = [&]() -> std::optional<EstimateQueue::Entry> {
        if (!low)
            return estimates.pop(paths.size());
        if (sorted.isEmpty())
            return std::nullopt;
        return sorted.takeLast();
    };

    // Rewritten files wait here until their data is on disk and can be checked.
    QList<EstimateQueue::Entry> unverified;
    qint64 unverifiedBytes = 0;
    auto verifyAll = [&] {
        if (unverified.isEmpty())
            return;
        // The root may be held by an O_PATH descriptor, which syncfs refuses.
        const int rootFd = FolderWalker::openNoAtime(m_rootFd, ".", O_RDONLY | O_DIRECTORY);
        ::syncfs(rootFd);
        if (rootFd >= 0)
            ::close(rootFd);
        for (const EstimateQueue::Entry &rewritten : std::as_const(unverified)) {
            Outcome outcome;
            outcome.savings = rewritten.encodedSavings;
            outcome.shared = rewritten.shared;
            outcome.stored = rewritten.stored;
            const int fd = openForReading(rewritten.path);
            if (fd >= 0) {
                outcome.savings += verify(fd, rewritten, m_skipped, &m_report, outcome.st, outcome.stored);
                outcome.settled = true;
                ::close(fd);
            }
            done(rewritten.index, outcome);
        }
        unverified.clear();
        unverifiedBytes = 0;
    };

    while (const std::optional<EstimateQueue::Entry> entry = next()) {
        if (!mayGoOn())
            break;
        if (entry->error != 0)
            m_unreadable.add(entry->error);
        m_report.shared(entry->shared);
        Outcome outcome;
        outcome.savings = entry->encodedSavings;
        outcome.shared = entry->shared;
        outcome.stored = entry->stored;
        outcome.settled = true;
        const int fd = openForReading(entry->path);
        if (fd < 0 && errno != ENOENT && entry->error == 0)
            m_unreadable.add(errno);
        bool rewritten = false;
        if (fd < 0) {
            outcome.settled = false;
        } else if (entry->skip) {
            m_report.skipped(entry->path, *entry->skip, entry->knownSkip);
        } else if (entry->estimate > 0) {
            // New files inherit the property from their folder; only a folder with plain data
            // of its own gets it: in a snapshot its metadata is shared too.
            const QByteArray folder = entry->path.left(qMax(entry->path.lastIndexOf('/'), 0));
            const int folderFd = FolderWalker::openNoAtime(m_rootFd, folder.isEmpty() ? "." : folder.constData(),
                                                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
            if (folderFd >= 0) {
                BtrfsCompressor::ensureCompressionProperty(folderFd);
                ::close(folderFd);
            }
            const Rewrite result = rewrite(fd, *entry, m_skipped, m_cancel, &m_report);
            m_noSpace = result == Rewrite::NoSpace;
            rewritten = result == Rewrite::Rewritten;
            // In use or refused: tried again when it changes or at the next rescan.
            struct stat now { };
            outcome.settled = rewritten || (::fstat(fd, &now) == 0 && m_skipped.find(now).has_value());
        } else if (entry->encoded) {
            m_report.alreadyCompressed();
        } else if (entry->shared == 0) {
            m_report.wouldNotShrink();
        }
        if (fd >= 0) {
            outcome.settled = outcome.settled && ::fstat(fd, &outcome.st) == 0;
            ::close(fd);
        }
        if (m_noSpace || m_cancel.load())
            break;
        if (rewritten) {
            unverified.append(*entry);
            unverifiedBytes += ExtentMap::bytes(entry->ranges);
            if (unverifiedBytes >= kVerifyBatch)
                verifyAll();
            continue;
        }
        done(entry->index, outcome);
    }
    verifyAll();
    estimates.close();
    estimator.join();
}
