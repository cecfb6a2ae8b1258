#include "btrfs/ExtentMap.h"

#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <vector>

void ExtentMap::append(QList<Range> &ranges, qint64 start, qint64 length)
{
    if (!ranges.isEmpty() && ranges.last().start + ranges.last().length == start)
        ranges.last().length += length;
    else
        ranges.append({start, length});
}

bool ExtentMap::read(int fd, bool sync)
{
    m_plainOwn.clear();
    m_unwritten.clear();
    m_placed.clear();
    m_unplaced.clear();
    m_plainShared = 0;
    m_extents.clear();
    m_placedBytes = 0;
    m_sharedBytes = 0;
    constexpr unsigned kExtents = 256;
    m_buffer.resize(sizeof(struct fiemap) + kExtents * sizeof(struct fiemap_extent));
    __u64 start = 0;
    for (;;) {
        // The kernel fills in the extents it maps; only the request needs clearing.
        std::fill(m_buffer.begin(), m_buffer.begin() + sizeof(struct fiemap), 0);
        auto *map = reinterpret_cast<struct fiemap *>(m_buffer.data());
        map->fm_start = start;
        map->fm_length = FIEMAP_MAX_OFFSET - start;
        map->fm_extent_count = kExtents;
        map->fm_flags = sync && start == 0 ? FIEMAP_FLAG_SYNC : 0;
        if (::ioctl(fd, FS_IOC_FIEMAP, map) != 0)
            return false;
        if (map->fm_mapped_extents == 0)
            return true;
        for (unsigned i = 0; i < map->fm_mapped_extents; ++i) {
            const struct fiemap_extent &extent = map->fm_extents[i];
            const qint64 logical = qint64(extent.fe_logical);
            const qint64 length = qint64(extent.fe_length);
            m_extents.append({logical, length, quint64(extent.fe_physical), extent.fe_flags});
            if (isCountedByDu(m_extents.last())) {
                m_placedBytes += length;
                if (extent.fe_flags & FIEMAP_EXTENT_SHARED)
                    m_sharedBytes += length;
            }
            // Inline data lives in the metadata, preallocated space holds no data: nothing to gain.
            if (extent.fe_flags & FIEMAP_EXTENT_ENCODED) {
                if (extent.fe_physical != 0 && !(extent.fe_flags & FIEMAP_EXTENT_DATA_INLINE))
                    m_placed.append(Placed{quint64(extent.fe_physical), {logical, length}});
                else
                    append(m_unplaced, logical, length);
            } else if (extent.fe_flags & FIEMAP_EXTENT_SHARED)
                m_plainShared += length;
            else if (!(extent.fe_flags & (FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_UNWRITTEN))) {
                append(m_plainOwn, logical, length);
                if (extent.fe_flags & FIEMAP_EXTENT_DELALLOC)
                    append(m_unwritten, logical, length);
            }
            if (extent.fe_flags & FIEMAP_EXTENT_LAST)
                return true;
            start = extent.fe_logical + extent.fe_length;
        }
    }
}

bool ExtentMap::isCountedByDu(const Extent &extent)
{
    return !(extent.flags & (FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_UNKNOWN));
}

qint64 ExtentMap::overlap(const Range &range, const QList<Range> &ranges)
{
    qint64 total = 0;
    for (const Range &other : ranges) {
        const qint64 start = qMax(range.start, other.start);
        const qint64 end = qMin(range.start + range.length, other.start + other.length);
        total += qMax(end - start, qint64(0));
    }
    return total;
}

qint64 ExtentMap::bytes(const QList<Range> &ranges)
{
    qint64 total = 0;
    for (const Range &range : ranges)
        total += range.length;
    return total;
}
