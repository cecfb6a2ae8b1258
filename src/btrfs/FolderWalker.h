#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMutex>

#include <functional>
#include <optional>
#include <sys/stat.h>

// The one way the helper goes through a watched folder, for the first pass, for rescans and
// after a change in one of its folders, and vantorctl through a folder it reports: every folder
// below a start folder, depth first, leaving out folders the exclusion rules name, other file
// systems and read-only btrfs subvolumes (snapshots), and telling which it left out. A writable
// subvolume of the same btrfs below the folder is part of it and is walked. Files are all
// listed: the rules are asked about a file only when it needs work (isExcluded), so a rescan of
// files already handled costs no more than reading the folders. Paths are bytes relative to the
// watched folder ("" is the folder itself).
class FolderWalker
{
public:
    struct File {
        qsizetype nameAt; // in Folder::names
        struct stat st;
    };
    struct Folder {
        QByteArray relative;
        int fd = -1; // open while the visitor runs
        QList<File> files; // regular files, with their status
        QByteArray names; // of the files, each ending in a NUL: one allocation, not one per file
        QList<QByteArray> subfolders; // names
        QByteArray name(const File &file) const { return QByteArray(names.constData() + file.nameAt); }
    };
    // Items that could not be opened, told once per pass rather than lost silently.
    struct Unreadable {
        qsizetype count = 0;
        int firstError = 0;
        void add(int error)
        {
            if (count++ == 0)
                firstError = error;
        }
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
    // Returns false to leave the folder's subfolders out.
    using Visitor = std::function<bool(const Folder &folder)>;

    // rootFd: the watched folder (an O_PATH descriptor will do); rootPath: its present path,
    // for the exclusion rules.
    FolderWalker(int rootFd, const QByteArray &rootPath);

    // Visits start and everything below it, on the calling thread, reading on two.
    void walk(const QByteArray &start, const Visitor &visit);
    // Visits only start; false when it cannot be opened (or is on another file system).
    bool list(const QByteArray &start, const Visitor &visit);

    // Reading must not change access times: in a snapshotted subvolume every inode touched is
    // metadata copied away from the snapshot. Only the owner may ask for that.
    static int openNoAtime(int dirFd, const char *path, int flags);

    // Whether the exclusion rules leave out the file at relative.
    bool isExcluded(const QByteArray &relative) const;

    const Unreadable &unreadable() const { return m_unreadable; }
    // What was left out so far, in no particular order.
    QList<LeftOut> leftOut() const;

private:
    // Folders read but not yet visited: enough to keep the reading thread busy, few enough open
    // descriptors.
    static constexpr std::size_t kReadAhead = 16;

    bool read(Folder *folder);
    // Whether a folder on another device than the start folder (another subvolume, or another
    // file system) is walked; noted in leftOut when not.
    bool isWalked(const Folder &folder, dev_t device);
    void leaveOut(const QByteArray &relative, LeftOut::Reason reason, int error = 0);

    int m_rootFd;
    QByteArray m_rootPath;
    dev_t m_device = 0;
    QByteArray m_fileSystem; // the btrfs's UUID; empty on another file system
    QMutex m_unreadableLock; // read() runs on two threads
    Unreadable m_unreadable;
    mutable QMutex m_leftOutLock;
    QList<LeftOut> m_leftOut;
    QHash<dev_t, std::optional<LeftOut::Reason>> m_devices; // what was found for each
};
