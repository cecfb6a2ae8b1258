#pragma once

#include "btrfs/CompressionModel.h"
#include "btrfs/FolderWalker.h"
#include "btrfs/RescanCache.h"
#include "btrfs/SkippedFiles.h"
#include "helper/FilePlan.h"
#include "helper/FolderJob.h"
#include "helper/FolderReport.h"
#include "helper/Pacer.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <deque>
#include <optional>

// The helper's compression thread, at idle priority. It takes one job at a time: walks the
// folder (recognising files already handled from the rescan cache, so a rescan reads no file
// data), then plans each file left (what zstd would save, chunk by chunk), hands the plans to
// the rewriting thread a few files ahead, and verifies what btrfs stored once each comes
// back. It keeps no state of a watched folder: what it finds goes to the main thread by
// signal, which keeps each folder's figures. Work comes in by queued calls and is done in
// short slices, so a cancel or a new pace is heard within milliseconds.
class CompressionWorker : public QObject
{
    Q_OBJECT
public:
    // How long the cache may stay behind the files it describes; a helper killed meanwhile
    // only looks at those files again.
    static constexpr int kCacheSaveMs = 60000;
    // How far planning runs ahead of rewriting.
    static constexpr int kPlansAhead = 8;
    static constexpr qint64 kBytesAhead = 64 * 1024 * 1024;
    // How long one slice of work holds the thread.
    static constexpr qint64 kSliceMs = 20;

    explicit CompressionWorker(QObject *parent = nullptr);
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
    // A plan back from the rewriting thread.
    void rewritten(const FilePlanPtr &plan);

Q_SIGNALS:
    // A job's walk begins: a whole walk finds everything below relative anew.
    void jobStarted(const JobTag &tag, const QByteArray &relative, bool whole);
    void foldersSeen(const JobTag &tag, const QList<SeenFolder> &folders);
    void walked(const JobTag &tag, const WalkEnd &end);
    void filesDone(const JobTag &tag, const QList<FileDone> &files);
    void jobEnded(const JobTag &tag, const JobEnd &end);
    // To the rewriting thread.
    void rewrite(const FilePlanPtr &plan);

private:
    struct Todo {
        QByteArray path;
        QByteArray folder;
    };
    struct Running {
        Running(const FolderJob &job, const QByteArray &rootPath)
            : job(job)
            , rootPath(rootPath)
            , report(rootPath)
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
        std::optional<FilePlan> planning; // being estimated
        int inFlight = 0; // plans at the rewriting thread
        qint64 bytesInFlight = 0;
        // A nearly full disk: every file is planned first, and those that free most go first.
        bool low = false;
        std::deque<FilePlanPtr> sorted;
        bool noSpace = false;
        bool cancelled = false;
        QList<QByteArray> propertySet; // folders given the compression property in this job
    };

    void schedulePump();
    void pump();
    void beginJob();
    void walkSlice(const QElapsedTimer &clock);
    void planSlice(const QElapsedTimer &clock);
    // The plan estimated: handled at once, or handed on.
    void planned(FilePlan plan);
    void dispatch(const FilePlanPtr &plan);
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
    FolderWalker m_walker;
    RescanCache m_cache;
    SkippedFiles m_skipped;
    CompressionModel m_model;
    QTimer m_cacheTimer;
};
