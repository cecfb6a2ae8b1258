#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QSet>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <sys/stat.h>

#include "btrfs/RescanCache.h"
#include "btrfs/SkippedFiles.h"

class FolderWatch;

// The background thread that looks through watched folders and compresses what needs it,
// one piece of work at a time, at idle CPU and I/O priority. A piece of work is a whole
// folder (the first pass and every rescan) or one folder inside it after a change; both go
// through the same walker, add what they find to the watch, and recognise files already
// handled from the rescan cache. It keeps each watched folder's savings as the sum over its
// folders, so a file removed or shrunk lowers them as surely as a new one raises them.
// Told what to do from the main thread (the calls below are thread-safe), it reports
// through queued signals and never touches the history store.
class CompressionWorker : public QThread
{
    Q_OBJECT
public:
    explicit CompressionWorker(FolderWatch *watch, QObject *parent = nullptr);
    ~CompressionWorker() override;

    // Takes rootFd (the watched folder, open, O_PATH will do) and looks through it all.
    void addFolder(qint64 id, int rootFd, const QByteArray &path);
    // The folder's present path, after a move.
    void setPath(qint64 id, const QByteArray &path);
    // Looks at relative again: the whole tree below it, or only its own entries (the
    // subfolders that are new to it in full).
    void scan(qint64 id, const QByteArray &relative, bool whole);
    void rescanAll();
    // True while work for the folder is queued or in hand.
    bool isBusy(qint64 id) const;
    // Drops the folder, stopping its work after the current step.
    void cancel(qint64 id);
    void cancelAll();
    // While inactive the worker stops between files and waits.
    void setActive(bool active);
    // Ends the thread, writing the cache, and waits for it.
    void stop();

Q_SIGNALS:
    // status: percent of the folder's files processed; savings: bytes saved in the folder.
    void progress(qint64 id, quint32 status, quint64 savings);
    // No more work queued for the folder; shared: its plain data shared with snapshots or
    // copies, left as it is.
    void finished(qint64 id, quint32 status, quint64 savings, quint64 shared);
    void failed(qint64 id, const QString &reason);
    // Files in relative were written too recently; look again after waitMs.
    void unsettled(qint64 id, const QByteArray &relative, qint64 waitMs);
    // A pass met plain data shared with snapshots or copies and left it as it is.
    void sharedFound(qint64 id);
    // The disk is too full to go on: the folder waits, below 100, for bytesToFree more room.
    void waitingForSpace(qint64 id, quint32 status, quint64 savings, quint64 bytesToFree);
    // Not every folder below id could be watched: inotify's per-user limit.
    void watchLimitReached(qint64 id);

protected:
    void run() override;

private:
    struct Job {
        qint64 id = 0;
        QByteArray relative;
        bool whole = true;
    };
    struct Folder {
        int fd = -1;
        QByteArray path;
        bool limitTold = false;
    };
    // Per watched folder: the figures of the files directly in each of its folders. A
    // compressed extent that several of its files refer to (reflinked copies) counts once.
    struct Tally {
        struct Extent {
            qint32 savings; // an extent holds at most 128 KiB
            qint32 files;
        };
        QHash<QByteArray, RescanCache::Figures> folders;
        QHash<quint64, Extent> extents; // by place on disk
        RescanCache::Figures total; // without the extents' list
        void set(const QByteArray &relative, RescanCache::Figures figures);
        void add(const QByteArray &relative, const RescanCache::Figures &figures);
        void dropBelow(const QByteArray &relative);
        void count(const QList<ExtentMap::Stored> &stored, bool more);
    };

    void runJob(const Job &job);
    // Waits while inactive; false when the job should end.
    bool waitUntilActive();
    void closeDropped();
    bool hasJob(qint64 id) const;
    void saveCache(bool force);

    FolderWatch *m_watch;
    mutable QMutex m_lock;
    QWaitCondition m_wake;
    QList<Job> m_jobs;
    QHash<qint64, Folder> m_folders;
    QList<int> m_dropped; // descriptors of cancelled folders, closed by the thread
    QList<qint64> m_droppedIds;
    qint64 m_current = 0;
    bool m_active = true;
    bool m_stopping = false;
    std::atomic<bool> m_cancelCurrent{false};

    // The thread's own.
    RescanCache m_cache;
    SkippedFiles m_skipped;
    QHash<qint64, Tally> m_tallies;
    QSet<qint64> m_scannedWhole;
    qint64 m_lastSave = 0;
};
