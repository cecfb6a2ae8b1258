#pragma once

#include <QByteArray>
#include <QString>

#include "btrfs/ExtentMap.h"

#include <optional>
#include <vector>
#include <sys/stat.h>

// What the helper already knows about files it has handled, so a rescan recognises them
// without reading their data: keyed by device and inode, valid while size and change time
// are what they were. Kept in "$XDG_CACHE_HOME/vantor/files.cache". The file is only a
// shortcut: a missing, old or damaged one is ignored whole and costs a slower rescan.
// Used from the compression thread only.
class RescanCache
{
public:
    // What one file held when it was handled. What compression saves lies in its extents,
    // each counted once however many files refer to it, and in data stored compressed inside
    // the file system's metadata (inline), which is the file's alone.
    struct Figures {
        qint64 inlineSavings = 0;
        qint64 sharedPlain = 0; // plain data shared with snapshots or copies, left as it is
        QList<ExtentMap::Stored> extents; // each compressed extent and what it saves
    };
    static QString path();

    // Reads the file; false (and an empty cache) when it is missing or damaged.
    bool load();
    // Writes it atomically when anything changed since the last write. With prune, entries not
    // seen since the helper started are left out (their files are gone or were never scanned).
    bool save(bool prune);

    // The file's figures, its compressed extents appended to extents rather than in them.
    std::optional<Figures> find(const struct stat &st, QList<ExtentMap::Stored> &extents);
    void insert(const struct stat &st, const Figures &figures);
    bool isDirty() const { return m_dirty; }
    qsizetype size() const { return qsizetype(m_records.size()); }

private:
    // A rescan looks up every file: fixed-size records in one array and an open-addressing
    // index of 32-bit positions into it keep that a couple of memory reads per file, and the
    // memory a few dozen bytes per file, and 16 more per compressed extent.
    struct Record {
        quint64 device = 0;
        quint64 inode = 0;
        qint64 size = 0;
        qint64 changeSeconds = 0;
        qint64 changeNanoseconds = 0;
        qint64 inlineSavings = 0;
        qint64 sharedPlain = 0;
        quint32 storedAt = 0; // its extents in m_stored
        quint32 storedCount : 31 = 0;
        quint32 seen : 1 = false; // looked up or stored since the helper started
    };
    static constexpr quint32 kEmpty = 0xffffffffu;

    quint32 *slot(quint64 device, quint64 inode);
    void rebuildIndex();

    std::vector<Record> m_records;
    // A file stored again leaves its old extents here until the next save.
    std::vector<ExtentMap::Stored> m_stored;
    std::vector<quint32> m_index; // positions in m_records; a power of two, at most half full
    quint32 m_lastFound = kEmpty;
    bool m_dirty = false;
};
