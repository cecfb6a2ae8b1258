#pragma once

#include "helper/SkippedFiles.h"

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <atomic>

// The background thread that compresses watched folders one at a time, at idle CPU and I/O
// priority. It is told what to do from the main thread (the calls below are thread-safe) and
// reports through queued signals; it never touches the history store.
class CompressionWorker : public QThread
{
    Q_OBJECT
public:
    explicit CompressionWorker(QObject *parent = nullptr);
    ~CompressionWorker() override;

    // folder is the path as the file system has it (bytes).
    void enqueue(qint64 id, const QByteArray &folder);
    // Drops a queued folder, or stops the one in hand after its current step.
    void cancel(qint64 id);
    void cancelAll();
    // While inactive the worker stops between files and waits.
    void setActive(bool active);
    // Ends the thread and waits for it.
    void stop();

Q_SIGNALS:
    // status: percent of the folder's files processed; savings: bytes saved so far.
    void progress(qint64 id, quint32 status, quint64 savings);
    void finished(qint64 id, quint32 status, quint64 savings);
    // The folder holds this much plain data shared with snapshots or copies, left as it is.
    void sharedLeft(qint64 id, quint64 bytes);
    // The disk is too full to go on: the folder waits, below 100, for bytesToFree more room.
    void waitingForSpace(qint64 id, quint32 status, quint64 savings, quint64 bytesToFree);
    void failed(qint64 id, const QString &reason);

protected:
    void run() override;

private:
    struct Job {
        qint64 id;
        QByteArray folder;
    };
    void compressFolder(const Job &job);
    // Waits while inactive; false when the job should end.
    bool waitUntilActive(qint64 id);
    bool cancelled(qint64 id) const;

    mutable QMutex m_lock;
    QWaitCondition m_wake;
    QList<Job> m_jobs;
    qint64 m_current = 0;
    bool m_active = true;
    bool m_stopping = false;
    std::atomic<bool> m_cancelCurrent{false};
    SkippedFiles m_skipped;
};
