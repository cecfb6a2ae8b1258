#pragma once

#include "btrfs/CompressionModel.h"
#include "btrfs/ExtentMap.h"
#include "btrfs/RescanCache.h"

#include <QList>
#include <QtGlobal>

#include <sys/stat.h>

// What one file holds on btrfs and what zstd compression does or would do there, from its
// extent map (FIEMAP) and status. What FIEMAP does not tell an ordinary user (how small a
// compressed extent is, whether plain data would shrink) comes from the zstd model reading the
// data, or, for a file the helper has handled and that has not changed since, from what the
// helper found (the rescan cache), without reading anything. Extents that other files may
// share are kept one by one, so that a folder counts each once (FolderUsage).
class FileUsage
{
public:
    // What Vantor does with the file: compress it, or leave it as it is and why.
    enum class Kind {
        Compressible,
        NoCopyOnWrite, // chattr +C: btrfs compresses only copy-on-write data
        SwapFile, // in use as swap (/proc/swaps)
        Excluded, // by the exclusion rules
    };
    // An extent with a place on disk.
    struct Extent {
        quint64 physical;
        qint64 length; // of the file's data in it
        qint64 savings; // what its compression saves; -1 for a plain extent
        bool shared; // FIEMAP's SHARED: another file or a snapshot refers to it too
    };

    // Works out the figures of the file open at fd, with status st. known: the helper's figures
    // for the file, its compressed extents in stored; null to read the data instead. False when
    // the file system does not answer (the figures are then empty).
    bool measure(int fd, const struct stat &st, Kind kind, CompressionModel &model,
                 const RescanCache::Figures *known = nullptr, const QList<ExtentMap::Stored> &stored = {});

    Kind kind = Kind::Compressible;
    // As compsize's "Referenced": every extent's bytes of this file, inline data by its size.
    qint64 referenced = 0;
    // As "btrfs filesystem du" counts the file's "Exclusive": bytes of extents with a place on
    // disk that nothing else refers to.
    qint64 exclusive = 0;
    // Referenced bytes stored compressed.
    qint64 compressed = 0;
    // Data with no place of its own (inline in the metadata, or not yet written): the file's
    // alone, so counted here rather than per extent.
    qint64 unplacedDisk = 0;
    qint64 unplacedSavings = 0;
    // The plain data of a compressible file: its own, which would shrink (and by how much) or
    // would not; and what it shares, which Vantor leaves as it is.
    qint64 wouldShrink = 0;
    qint64 wouldSave = 0;
    qint64 wouldNotShrink = 0;
    qint64 plainShared = 0;
    QList<Extent> extents;
    // Data read to work the figures out.
    qint64 read = 0;

private:
    CompressionModel::Estimate estimate(const QList<ExtentMap::Range> &ranges);
    // A plain extent: where it lies, and, for a file Vantor would compress, what it would do.
    void addPlain(const ExtentMap::Extent &extent, qint64 length, bool placed, bool known,
                  QList<ExtentMap::Range> &own);

    ExtentMap m_map;
    // Of the file being measured.
    int m_fd = -1;
    qint64 m_size = 0;
    CompressionModel *m_model = nullptr;
};
