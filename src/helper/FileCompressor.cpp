#include "helper/FileCompressor.h"

#include "helper/BtrfsCompressor.h"
#include "helper/CompressionModel.h"

#include <QMutex>
#include <QWaitCondition>

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
        qsizetype index;
        qint64 estimate;
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

} // namespace

FileCompressor::FileCompressor(int rootFd, const std::atomic<bool> &cancel)
    : m_rootFd(rootFd)
    , m_cancel(cancel)
{
}

int FileCompressor::openForReading(const QByteArray &path) const
{
    // Reading must not change the file's access time; only its owner may ask for that.
    int fd = ::openat(m_rootFd, path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::openat(m_rootFd, path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    return fd;
}

void FileCompressor::compress(const QList<QByteArray> &paths, const MayGoOn &mayGoOn, const Done &done)
{
    EstimateQueue estimates;
    std::thread estimator([&] {
        BtrfsCompressor::lowerThreadPriority();
        CompressionModel model;
        for (qsizetype i = 0; i < paths.size(); ++i) {
            const int fd = openForReading(paths[i]);
            struct stat st {};
            const int error = fd < 0 && errno != ENOENT ? errno : 0;
            qint64 estimate = 0;
            if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
                estimate = model.savingsForFile(fd);
            if (fd >= 0)
                ::close(fd);
            if (!estimates.push({i, estimate, error}))
                return;
        }
    });

    while (const std::optional<EstimateQueue::Entry> entry = estimates.pop(paths.size())) {
        if (!mayGoOn())
            break;
        if (entry->error != 0)
            m_unreadable.add(entry->error);
        Outcome outcome;
        const int fd = openForReading(paths[entry->index]);
        if (fd < 0 && errno != ENOENT && entry->error == 0)
            m_unreadable.add(errno);
        if (fd >= 0 && entry->estimate <= 0) {
            // A file that would not shrink is left as it is.
            outcome.settled = entry->estimate == 0;
        } else if (fd >= 0
                   && (BtrfsCompressor::isCompressed(fd)
                       || BtrfsCompressor::compressFile(fd, m_cancel) == BtrfsCompressor::Result::Compressed)) {
            outcome.savings = entry->estimate;
            outcome.settled = true;
        }
        if (fd >= 0) {
            outcome.settled = outcome.settled && ::fstat(fd, &outcome.st) == 0;
            ::close(fd);
        }
        if (m_cancel.load())
            break;
        done(entry->index, outcome);
    }
    estimates.close();
    estimator.join();
}
