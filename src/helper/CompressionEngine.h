#pragma once

#include "helper/FolderJob.h"
#include "helper/Pacer.h"

#include <QByteArray>
#include <QObject>
#include <QThread>
#include <QTimer>

#include <map>
#include <vector>
#include <memory>

class CompressionWorker;
class DesktopNotifier;
class FolderWatch;
class RescanSchedule;
class FileCompressor;
class SavingsModel;
class WatchedFolder;

// Decides what happens to each watched folder, on the main thread. On btrfs a folder is looked
// through whole when it is added, at the helper's start and every few hours, then followed
// through the watch: a change waits to settle and then goes to the compression thread. The
// folder's status is below 100 while any of that waits. A folder that moves on its file system
// is followed, and its record updated. On a file system without transparent compression the
// record is closed at once (status 100, savings 0) and the user is told why.
//
// Each folder's state is one WatchedFolder, owned here. The compression thread walks and hands
// files to the file compressors, which estimate, hand work to the kernel at the pace the pacer
// sets and read back what it stored; all hear from here by queued calls and answer by signals,
// and share nothing with this thread.
class CompressionEngine : public QObject
{
    Q_OBJECT
public:
    // While the watch limit keeps part of a folder unwatched.
    static constexpr int kLimitedRescanMs = 15 * 60 * 1000;
    // How often the machine's load is read while there is work.
    static constexpr int kSampleMs = 50;

    enum class Activity { Idle, Working, Waiting };
    enum class Reason { None, SwitchedOff, Battery, PowerSaver, BusyMachine, DiskSpace };
    struct Status {
        Activity activity = Activity::Idle;
        Reason reason = Reason::None; // while waiting
        bool operator==(const Status &) const = default;
    };

    CompressionEngine(SavingsModel *savings, DesktopNotifier *notifier, FolderWatch *watch, QObject *parent = nullptr);
    // Stops the threads; progress made so far is written.
    ~CompressionEngine() override;

    // Picks up every listed folder, finding moved ones again through their alias records.
    void resume();
    void addFolder(qint64 id, const QString &folder);
    void removeFolder(qint64 id);
    // The user's switch, and the power supply: while either says so, nothing is rewritten.
    void setSwitchedOn(bool on);
    void setPower(bool onBattery, bool powerSaver);
    Status status() const { return m_status; }
    // For people: "working", "waiting: on battery power".
    static QString describe(const Status &status);
    // For programs: "idle", "working", "waiting"; "battery", "busy machine".
    static QString activityCode(Activity activity);
    static QString reasonCode(Reason reason);

Q_SIGNALS:
    void statusChanged();

private:
    // From the watch.
    void changed(qint64 id, const QByteArray &relative);
    void folderMoved(qint64 id);
    void overflowed();
    // From the compression thread.
    void jobStarted(const JobTag &tag, const QByteArray &relative, bool whole);
    void foldersSeen(const JobTag &tag, const QList<SeenFolder> &folders);
    void walked(const JobTag &tag, const WalkEnd &end);
    void filesDone(const JobTag &tag, const QList<FileDone> &files);
    void jobEnded(const JobTag &tag, const JobEnd &end);

    void add(qint64 id, const QString &path, bool recordDone);
    // Null when the folder is gone, or the news is of an earlier life of it.
    WatchedFolder *find(const JobTag &tag) const;
    WatchedFolder *find(qint64 id) const;
    void queueJob(WatchedFolder *folder, const QByteArray &relative, bool whole);
    void rescanAll();
    void watch(WatchedFolder *folder, const QByteArray &relative);
    void listed(WatchedFolder *folder, const SeenFolder &seen);
    // Writes the folder's progress and savings to its record.
    void record(WatchedFolder *folder, bool flush);
    void forget(qint64 id);
    void forgetAll();
    void roomCheck(WatchedFolder *folder);
    void watchLimitReached(WatchedFolder *folder);
    void folderDone(WatchedFolder *folder);
    // Tells the user, and the log, in the same words.
    void tell(const QString &summary, const QString &body);

    bool hasWork() const;
    void sample();
    // The pace, the sampling and the status follow the work and the pacer's decisions.
    void update();

    SavingsModel *m_savings;
    DesktopNotifier *m_notifier;
    FolderWatch *m_watch;
    std::map<qint64, std::unique_ptr<WatchedFolder>> m_folders;
    quint64 m_generations = 0;
    quint64 m_storesOpened = 0; // each replacement of history.db found counts one
    QThread m_workerThread;
    std::vector<std::unique_ptr<QThread>> m_compressorThreads;
    QList<FileCompressor *> m_compressors; // each lives in its thread
    CompressionWorker *m_worker;
    RescanSchedule *m_rescan;
    Pacer m_pacer;
    Pacer::Pace m_pace;
    QTimer m_sampler;
    Status m_status;
    bool m_cachePruned = false;
};
