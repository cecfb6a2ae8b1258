#pragma once

#include <QByteArray>
#include <QObject>
#include <QSet>

class CompressionWorker;
class DesktopNotifier;
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

    SavingsModel *m_savings;
    DesktopNotifier *m_notifier;
    CompressionWorker *m_worker;
    QSet<qint64> m_removed;
};
