#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QSet>

class CompressionWorker;
class DesktopNotifier;
class FreeSpaceGuard;
class SavingsModel;

// Decides what happens to each watched folder: on btrfs it goes to the worker thread; on a
// file system without transparent compression the record is closed at once (status 100,
// savings 0) and the user is told why. Progress from the worker goes to the savings model.
class CompressionEngine : public QObject
{
    Q_OBJECT
public:
    CompressionEngine(SavingsModel *savings, DesktopNotifier *notifier, QObject *parent = nullptr);
    ~CompressionEngine() override;

    // Picks up every listed folder that is not finished (after a restart, say).
    void resume();
    void addFolder(qint64 id, const QString &folder);
    void removeFolder(qint64 id);
    void setActive(bool active);
    // Stops the worker thread; progress made so far is written.
    void stop();

private:
    void progress(qint64 id, quint32 status, quint64 savings);
    void finished(qint64 id, quint32 status, quint64 savings);
    void failed(qint64 id, const QString &reason);
    void sharedLeft(qint64 id, quint64 bytes);
    void waitingForSpace(qint64 id, quint32 status, quint64 savings, quint64 bytesToFree);
    void roomAgain(qint64 id);
    // Tells the user, and the log, in the same words.
    void tell(const QString &summary, const QString &body);

    SavingsModel *m_savings;
    DesktopNotifier *m_notifier;
    CompressionWorker *m_worker;
    FreeSpaceGuard *m_space;
    QSet<qint64> m_removed;
    QHash<qint64, QByteArray> m_folders;
    // Told once: about shared data per folder, about a full disk per wait.
    QSet<qint64> m_toldShared;
    QSet<qint64> m_toldWaiting;
};
