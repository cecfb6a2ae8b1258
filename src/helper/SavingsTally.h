#pragma once

#include "btrfs/RescanCache.h"

#include <QByteArray>
#include <QHash>

// What one watched folder saves, kept as the sum over its folders so that a file removed or
// shrunk lowers the figure as surely as a new one raises it. A compressed extent that several
// of its files refer to (reflinked copies) counts once, by its place on disk, as compsize
// counts it.
class SavingsTally
{
public:
    // The figures of a folder's files as a walk found them, replacing what was known of it.
    void set(const QByteArray &folder, RescanCache::Figures figures);
    // One more file of the folder, handled since.
    void add(const QByteArray &folder, const RescanCache::Figures &figures);
    // Forgets the folder and everything below it.
    void dropBelow(const QByteArray &folder);
    bool contains(const QByteArray &folder) const { return m_folders.contains(folder); }
    // The folders known directly inside folder.
    QList<QByteArray> subfoldersOf(const QByteArray &folder) const;

    // Bytes saved, and plain bytes left as they are because something else shares them.
    quint64 savings() const { return quint64(std::max<qint64>(m_savings, 0)); }
    quint64 sharedPlain() const { return quint64(std::max<qint64>(m_sharedPlain, 0)); }

    // Whether path is folder or lies below it, both relative to the watched folder (empty: its top).
    static bool isBelow(const QByteArray &path, const QByteArray &folder);

private:
    struct Extent {
        qint32 savings; // an extent holds at most 128 KiB
        qint32 files;
    };
    void count(const QList<ExtentMap::Stored> &extents, bool more);

    QHash<QByteArray, RescanCache::Figures> m_folders;
    QHash<quint64, Extent> m_extents; // by place on disk
    qint64 m_savings = 0;
    qint64 m_sharedPlain = 0;
};
