#pragma once

#include "btrfs/FolderWalker.h"
#include "btrfs/RescanCache.h"
#include "btrfs/SkippedFiles.h"
#include "helper/FilePlan.h"
#include "helper/FolderJob.h"
#include "helper/FolderReport.h"
#include "helper/Pacer.h"

#include <QElapsedTimer>
#include <QObject>
#include <QSet>
#include <QTimer>

#include <deque>
#include <optional>

class FileCompressor;

// The helper's compression thread, at idle priority. It takes one job at a time: walks the
// folder (recognising files already handled from the rescan cache, so a rescan reads no file
// data), reads where each file left lies and what the rules say of it, and hands the files to
// the file compressors, as many side by side as the pace allows, a few files ahead of each.
// It keeps the rescan cache and the files btrfs cannot compress, and no state of a watched
// folder: what it finds goes to the main thread by signal, which keeps each folder's figures.
// Work comes in by queued calls and is done in short slices, so a cancel or a new pace is
// heard within milliseconds.
class CompressionWorker : public QObject
{
    Q_OBJECT
public:
    // How long the cache may stay behind the files it describes; a helper killed meanwhile
    // only looks at those files again.
    static constexpr int kCacheSaveMs = 60000;
    // Files given to one compressor at a time: one in hand, and enough behind it that small files
    // do not leave it waiting for this thread.
    static constexpr int kQueuedPerCompressor = 8;
    // How long one slice of work holds the thread.
    static constexpr qint64 kSliceMs = 20;

    // compressors: the file compressors, each in a thread of its own; only ever called by
    // queued calls.
    explicit CompressionWorker(const QList<FileCompressor *> &compressors, QObject *parent = nullptr);
    ~CompressionWorker() override;

    // Queued calls, on the worker's thread.
    void start();
    void enqueue(const FolderJob &job);
    // Drops the folder's jobs and stops the one in hand.
    void cancel(qint64 id);
    void setPace(const Pacer::Pace &pace);
    // Writes the cache now; with prune, leaving out files not met since the start (every
    // watched folder has been looked through whole since).
    void saveCache(bool prune);
    // Before the thread ends: the job in hand stops and the cache is written.
    void finish();
    // A plan back from a compressor.
    void handed(const FilePlanPtr &plan);

Q_SIGNALS:
    // A job's walk begins: a whole walk finds everything below relative anew.
    void jobStarted(const JobTag &tag, const QByteArray &relative, bool whole);
    void foldersSeen(const JobTag &tag, const QList<SeenFolder> &folders);
    void walked(const JobTag &tag, const WalkEnd &end);
    void filesDone(const JobTag &tag, const QList<FileDone> &files);
    void jobEnded(const JobTag &tag, const JobEnd &end);

private:
    struct Todo {
        QByteArray path;
        QByteArray folder;
    };
    struct Running {
        Running(const FolderJob &job, const QByteArray &rootPath)
            : job(job)
            , rootPath(rootPath)
            , report(rootPath, job.whole && job.relative.isEmpty())
        {
        }
        FolderJob job;
        QByteArray rootPath;
        FolderReport report;
        bool walking = true;
        qsizetype files = 0;
        QList<Todo> todo;
        qsizetype next = 0; // in todo
        WalkEnd walkEnd;
        QList<SeenFolder> seen; // not yet sent
        QList<FileDone> done; // not yet sent
        int inFlight = 0; // plans at the compressors
        // A nearly full disk: every file is estimated first, and those that free most go first.
        bool low = false;
        std::deque<FilePlanPtr> sorted;
        bool sortedOnce = false;
        bool noSpace = false;
        bool cancelled = false;
        QSet<QByteArray> propertySet; // folders given the compression property in this job
    };

    void schedulePump();
    void pump();
    void beginJob();
    void walkSlice(const QElapsedTimer &clock);
    void planSlice(const QElapsedTimer &clock);
    // A file gone or skipped is done with before it reaches a compressor.
    bool handledAtOnce(FilePlan &plan);
    // The least busy compressor the pace allows, with room for one more file; -1 when none.
    int freeCompressor() const;
    void dispatch(int compressor, const FilePlanPtr &plan, bool estimateOnly);
    void giveFolderProperty(const QByteArray &folder);
    void done(FilePlan &plan, bool settled);
    void sendProgress();
    bool jobDone() const;
    // Whether another slice could do something now.
    bool canGoOn() const;
    void endJob();
    void cacheChanged();

    Pacer::Pace m_pace;
    std::deque<FolderJob> m_jobs;
    std::optional<Running> m_job;
    bool m_pumpScheduled = false;
    QList<FileCompressor *> m_compressors;
    QList<int> m_loads; // files given to each and not yet back
    FolderWalker m_walker;
    RescanCache m_cache;
    SkippedFiles m_skipped;
    QTimer m_cacheTimer;
};
