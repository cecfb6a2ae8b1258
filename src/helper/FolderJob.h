#pragma once

#include "btrfs/FolderWalker.h"
#include "btrfs/RescanCache.h"
#include "helper/FolderReport.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMetaType>

// The messages between the helper's main thread and its compression thread. They carry
// values only; a descriptor in one belongs to whoever holds the message.

// Which watched folder a message is about, and which life of it: a folder removed and added
// again is a new one, and news of the old one is dropped.
struct JobTag {
    qint64 id = 0;
    quint64 generation = 0;
};

// A look through a watched folder: the whole tree below relative, or only its own entries.
struct FolderJob {
    JobTag tag;
    int rootFd = -1; // the watched folder, O_PATH; closed by the compression thread
    QByteArray relative;
    bool whole = true;
};

// A folder as a walk found it: the figures of its files the rescan cache knew, and, when only
// the folder itself was looked at, its subfolders' names.
struct SeenFolder {
    QByteArray relative;
    RescanCache::Figures known;
    bool alone = false; // only this folder was looked at: subfolders says what it holds now
    QList<QByteArray> subfolders;
};

// The walk of a job is done: of its files, todo are left to compress; folders holding files
// written too recently are to be looked at again after their wait.
struct WalkEnd {
    QByteArray relative;
    bool found = false; // the folder could be read at all
    qsizetype files = 0;
    qsizetype todo = 0;
    QHash<QByteArray, qint64> unsettled;
};

// A file handled, with its figures, in its folder.
struct FileDone {
    QByteArray folder;
    RescanCache::Figures figures;
};

struct JobEnd {
    bool merged = false; // not run: a job already queued covers it
    bool sharedFound = false; // plain data shared with snapshots or copies was left as it is
    qint64 bytesToFree = 0; // the disk was too full to go on: the folder waits for this much room
    FolderReport report; // told on the main thread, which knows what was told before
};

Q_DECLARE_METATYPE(JobTag)
Q_DECLARE_METATYPE(WalkEnd)
Q_DECLARE_METATYPE(JobEnd)
