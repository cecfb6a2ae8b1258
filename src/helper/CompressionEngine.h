#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QTimer>

class CompressionWorker;
class DesktopNotifier;
class FolderWatch;
class FreeSpaceGuard;
class RescanSchedule;
class SavingsModel;
class SettleQueue;

// Decides what happens to each watched folder. On btrfs it is looked through whole when it
// is added, at the helper's start and every few hours, then followed through the watch:
// a change waits in the settle queue and then goes to the worker thread. The folder's
// status is below 100 while any of that waits. A folder that moves on its file system is
// followed through a descriptor held open on it, and its record updated. On a file system
// without transparent compression the record is closed at once (status 100, savings 0) and
// the user is told why.
class CompressionEngine : public QObject
{
    Q_OBJECT
public:
    // While the watch limit keeps part of a folder unwatched.
    static constexpr int kLimitedRescanMs = 15 * 60 * 1000;

    CompressionEngine(SavingsModel *savings, DesktopNotifier *notifier, FolderWatch *watch, SettleQueue *settle,
                      QObject *parent = nullptr);
    ~CompressionEngine() override;

    // Picks up every listed folder, finding moved ones again through their alias records.
    void resume();
    void addFolder(qint64 id, const QString &folder);
    void removeFolder(qint64 id);
    void setActive(bool active);
    // Stops the worker thread; progress made so far is written.
    void stop();

    // From the watch and the settle queue.
    void changed(qint64 id, const QByteArray &relative);
    void settled(qint64 id, const QByteArray &relative);
    void folderMoved(qint64 id);
    void overflowed();

private:
    struct Folder {
        int fd = -1; // O_PATH: follows the folder wherever it moves on its file system
        QString path;
        quint32 status = 0;
        quint64 savings = 0;
    };
    void report(qint64 id, quint32 status, quint64 savings, bool flush);
    void progress(qint64 id, quint32 status, quint64 savings);
    void finished(qint64 id, quint32 status, quint64 savings, quint64 shared);
    void failed(qint64 id, const QString &reason);
    void unsettled(qint64 id, const QByteArray &relative, qint64 waitMs);
    void watchLimitReached(qint64 id);
    void forget(qint64 id);
    void sharedLeft(qint64 id, quint64 bytes);
    void waitingForSpace(qint64 id, quint32 status, quint64 savings, quint64 bytesToFree);
    void roomAgain(qint64 id);
    // Tells the user, and the log, in the same words.
    void tell(const QString &summary, const QString &body);
    bool isBusy() const;

    SavingsModel *m_savings;
    DesktopNotifier *m_notifier;
    FolderWatch *m_watch;
    SettleQueue *m_settle;
    CompressionWorker *m_worker;
    FreeSpaceGuard *m_space;
    QHash<qint64, Folder> m_folders;
    RescanSchedule *m_rescan;
    QSet<qint64> m_limited;
    // Told once: about shared data per folder, about a full disk per wait.
    QSet<qint64> m_toldShared;
    QSet<qint64> m_sharedFound; // to be told when the folder is done
    QSet<qint64> m_toldWaiting;
};
