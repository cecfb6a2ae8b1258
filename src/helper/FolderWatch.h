#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>

class QSocketNotifier;

// Follows changes in watched folders at any depth through inotify, which any user may use
// and which works alike on every kernel the helper runs on. inotify watches one folder per
// watch, so every folder below a watched one is added as the walker finds it. Folders are
// named by the watched folder's record id and their path relative to it, so a watched
// folder that moves needs no change here. A folder inside two watched folders has one
// inotify watch (the kernel gives one per inode) heard by both records, and the watch goes
// only when neither wants it. Nothing is polled: the descriptor wakes the event loop only
// when something happened.
class FolderWatch : public QObject
{
    Q_OBJECT
public:
    enum class Result { Watched, LimitReached, Failed };

    explicit FolderWatch(QObject *parent = nullptr);
    ~FolderWatch() override;

    // fd: the folder, open (O_PATH will do).
    Result watch(qint64 id, const QByteArray &relative, int fd);
    bool isWatched(qint64 id, const QByteArray &relative) const;
    // Stops following relative and everything below it.
    void unwatch(qint64 id, const QByteArray &relative);
    void unwatchAll(qint64 id);

    // The per-user watch limit, for the log. In a nested user namespace a parent's lower
    // limit may hold instead, which only the count of watches held shows.
    static int limit();
    qsizetype count() const;

Q_SIGNALS:
    // Something in this folder was created, written and closed, moved in or out, removed,
    // or had its attributes changed.
    void changed(qint64 id, const QByteArray &relative);
    // The watched folder itself was moved or removed.
    void folderMoved(qint64 id);
    // Events were lost: every folder must be looked at again.
    void overflowed();

private:
    struct Place {
        qint64 id;
        QByteArray relative;
    };
    void readEvents();
    void forget(int wd);
    void release(int wd, qint64 id, const QByteArray &relative);

    int m_fd = -1;
    QSocketNotifier *m_notifier = nullptr;
    QHash<int, QList<Place>> m_places; // the records hearing each watch
    QHash<qint64, QHash<QByteArray, int>> m_watches;
};
