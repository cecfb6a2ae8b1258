#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QTimer>

// How much room a rewrite may take on a nearly full disk. A compress-rewrite writes the new
// extents before the old ones are freed, so it needs free space of its own while it works;
// a margin is always left for the system. Folders that had to stop are watched here until
// their file system has room again.
class FreeSpaceGuard : public QObject
{
    Q_OBJECT
public:
    // Below this much room beyond the margin the helper works in small steps, committing
    // each so the old extents are freed at once.
    static constexpr qint64 kLowRoom = 64 * 1024 * 1024;
    // The least room a step needs.
    static constexpr qint64 kMinRoom = 2 * 1024 * 1024;
    static constexpr int kPollMs = 3000;

    explicit FreeSpaceGuard(QObject *parent = nullptr);

    // Space the helper leaves free on the file system of fd: 1% of it, at least 4 MiB, at most 512 MiB.
    static qint64 margin(int fd);
    // Free space beyond the margin (negative when the margin is already eaten into); 0 when unknown.
    static qint64 room(int fd);

    // Watches the folder's file system until it has room for a step again.
    void wait(qint64 id, const QByteArray &folder);
    void forget(qint64 id);

Q_SIGNALS:
    void roomAgain(qint64 id);

private:
    void poll();

    QHash<qint64, QByteArray> m_waiting;
    QTimer m_timer;
};
