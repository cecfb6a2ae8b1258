#pragma once

#include <QList>
#include <QtGlobal>

#include <vector>

// Where a file's data lies, as FIEMAP tells it to any user who can read the file: which byte
// ranges are shared with a snapshot or a reflinked copy, which are already stored compressed,
// and which are the file's own and still plain, so a compress-rewrite can only gain there.
class ExtentMap
{
public:
    struct Range {
        qint64 start;
        qint64 length;
    };
    // A compressed extent, known by where it lies on disk: a reflinked copy or a snapshot
    // refers to the same one, and what it saves counts once however many files refer to it.
    struct Stored {
        quint64 physical;
        qint64 savings;
    };
    struct Placed {
        quint64 physical;
        Range range;
    };
    // One extent as FIEMAP gives it. A compressed extent's physical address is where the
    // extent starts on disk, whatever part of it the file refers to; a plain one's is where
    // this range of the file lies.
    struct Extent {
        qint64 logical;
        qint64 length;
        quint64 physical; // 0 when it has no place of its own (inline, not yet written)
        quint32 flags; // FIEMAP_EXTENT_*
    };

    // False when the file system does not answer; the map is then empty. With sync, data still
    // being written is on disk first, so the map shows where it went.
    bool read(int fd, bool sync = false);

    // The file's own plain ranges, neighbours merged: the only ones worth rewriting. Shared
    // ones stay as they are, so the other owner keeps sharing them.
    const QList<Range> &plainOwn() const { return m_plainOwn; }
    // Of those, data still only in memory, waiting to be written: btrfs's defragment call
    // passes over it, it is compressed as it is written out.
    const QList<Range> &unwritten() const { return m_unwritten; }
    // Compressed extents with a place on disk, one by one; the other compressed ranges (inline
    // data) are the file's alone.
    const QList<Placed> &placed() const { return m_placed; }
    const QList<Range> &unplaced() const { return m_unplaced; }
    // Bytes in plain extents that something else shares.
    qint64 plainShared() const { return m_plainShared; }
    // Every extent, in file order, inline and preallocated ones too.
    const QList<Extent> &extents() const { return m_extents; }
    // The file as "btrfs filesystem du" counts it: bytes of extents that have a place on disk
    // (inline data and data not yet written left out), and of those, the ones FIEMAP marks shared
    // with another file or a snapshot.
    qint64 placedBytes() const { return m_placedBytes; }
    qint64 sharedBytes() const { return m_sharedBytes; }
    static bool isCountedByDu(const Extent &extent);
    // Bytes of range that lie in ranges.
    static qint64 overlap(const Range &range, const QList<Range> &ranges);
    static qint64 bytes(const QList<Range> &ranges);

private:
    static void append(QList<Range> &ranges, qint64 start, qint64 length);

    QList<Range> m_plainOwn;
    QList<Range> m_unwritten;
    QList<Placed> m_placed;
    QList<Range> m_unplaced;
    qint64 m_plainShared = 0;
    QList<Extent> m_extents;
    qint64 m_placedBytes = 0;
    qint64 m_sharedBytes = 0;
    std::vector<char> m_buffer; // kept: a report reads the map of every file
};
