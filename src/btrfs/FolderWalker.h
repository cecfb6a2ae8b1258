#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QWaitCondition>

#include <deque>
#include <functional>
#include <optional>
#include <thread>
#include <sys/stat.h>

// The one way through a folder tree, for the helper's first pass, its rescans and its look at
// a changed folder, and for the report: every folder below a start folder, depth first,
// leaving out folders the exclusion rules name, other file systems and read-only btrfs
// subvolumes (snapshots), and telling which it left out. A writable subvolume of the same
// btrfs below the folder is part of it and is walked. Files are all listed: the rules are
// asked about a file only when it needs work (isExcluded), so a rescan of files already
// handled costs no more than reading the folders. Paths are bytes relative to the root folder
// ("" is the root itself).
//
// Most of a rescan is the kernel looking up and stat'ing each file, one call at a time: a
// reading thread of the walker's own, started once, reads folders ahead while the caller
// takes the ones read, so two cores share it.
class FolderWalker
{
public:
    struct File {
        qsizetype nameAt; // in Folder::names
        struct stat st;
    };
    struct Folder {
        QByteArray relative;
        QList<File> files; // regular files, with their status
        QByteArray names; // of the files, each ending in a NUL: one allocation, not one per file
        QList<QByteArray> subfolders; // names
        QByteArray name(const File &file) const { return QByteArray(names.constData() + file.nameAt); }
    };
    // A folder below the start folder that was not walked, and why.
    struct LeftOut {
        enum class Reason {
            Excluded, // by the exclusion rules
            OtherFileSystem, // a mount point of another file system, or of another btrfs
            ReadOnlySubvolume, // a snapshot (Snapper's ".snapshots", backup tools')
            Unreadable, // not ours to read, or too deep to name: error says which
        };
        QByteArray relative;
        Reason reason;
        int error = 0;
    };
    using Visitor = std::function<void(const Folder &folder)>;

    FolderWalker();
    ~FolderWalker();
    FolderWalker(const FolderWalker &) = delete;
    FolderWalker &operator=(const FolderWalker &) = delete;

    // Starts going through start below rootFd (an O_PATH descriptor will do), the whole tree
    // below it or, without whole, start's own entries only. rootPath is the root's present
    // path, for the exclusion rules. Ends the walk in progress, if any.
    void begin(int rootFd, const QByteArray &rootPath, const QByteArray &start, bool whole);
    // The next folder read; nothing once the walk is done. Blocks while the reading is behind.
    std::optional<Folder> next();
    // Ends the walk in progress; once it returns the root descriptor is no longer used.
    void end();

    // A whole walk from begin to end, visiting each folder on the calling thread.
    void walk(int rootFd, const QByteArray &rootPath, const QByteArray &start, const Visitor &visit);

    // Reading must not change access times: in a snapshotted subvolume every inode touched is
    // metadata copied away from the snapshot. Only the owner may ask for that.
    static int openNoAtime(int dirFd, const char *path, int flags);

    // Whether the exclusion rules leave out the item at relative below the root of the walk.
    bool isExcluded(const QByteArray &relative) const;

    // What the walk in progress, or the last one, left out so far, by path.
    QList<LeftOut> leftOut() const;

private:
    // Folders read but not yet taken: enough to keep the reading thread busy, few enough to
    // hold little memory.
    static constexpr std::size_t kReadAhead = 16;

    void readAhead();
    // Reads folder->relative; false when it cannot be opened or is left out.
    bool read(Folder *folder);
    // Whether a folder on another device than the root (another subvolume, or another file
    // system) is walked; noted in leftOut when not.
    bool isWalked(int fd, const QByteArray &relative, dev_t device);
    void leaveOut(const QByteArray &relative, LeftOut::Reason reason, int error = 0);
    // With m_lock held: reads the last pending folder, unlocked meanwhile.
    void readPending(QMutexLocker<QMutex> &locker);

    mutable QMutex m_lock;
    QWaitCondition m_changed;
    // Of the walk in progress, set by begin() while no read is in hand.
    int m_rootFd = -1;
    QByteArray m_rootPath;
    dev_t m_device = 0;
    QByteArray m_fileSystem; // the root's btrfs's UUID; empty on another file system
    bool m_whole = true;
    bool m_walking = false;
    QList<LeftOut> m_leftOut;
    QHash<dev_t, std::optional<LeftOut::Reason>> m_devices; // what was found for each
    QList<QByteArray> m_pending;
    std::deque<Folder> m_ready;
    int m_reading = 0;
    bool m_stopping = false;
    std::thread m_reader;
};
