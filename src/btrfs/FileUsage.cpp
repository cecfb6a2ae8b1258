#include "btrfs/FileUsage.h"

#include "btrfs/CompressionModel.h"

#include <QHash>

#include <linux/fiemap.h>

#include <optional>

namespace {

// What the helper found for each compressed extent of a file, by its place on disk.
class StoredSavings
{
public:
    explicit StoredSavings(const QList<ExtentMap::Stored> &stored)
        : m_stored(stored)
    {
        if (stored.size() > 8) {
            for (const ExtentMap::Stored &extent : stored)
                m_byPlace.insert(extent.physical, extent.savings);
        }
    }
    std::optional<qint64> find(quint64 physical) const
    {
        if (!m_byPlace.isEmpty()) {
            const auto it = m_byPlace.constFind(physical);
            return it == m_byPlace.cend() ? std::nullopt : std::optional<qint64>(*it);
        }
        for (const ExtentMap::Stored &extent : m_stored) {
            if (extent.physical == physical)
                return extent.savings;
        }
        return std::nullopt;
    }

private:
    const QList<ExtentMap::Stored> &m_stored;
    QHash<quint64, qint64> m_byPlace;
};

} // namespace

CompressionModel::Estimate FileUsage::estimate(const QList<ExtentMap::Range> &ranges)
{
    const CompressionModel::Estimate estimate = m_model->estimateRanges(m_fd, m_size, ranges);
    read += estimate.read;
    // Data that cannot be read is taken for data that would not shrink.
    return estimate.savings < 0 ? CompressionModel::Estimate() : estimate;
}

bool FileUsage::measure(int fd, const struct stat &st, Kind kind, CompressionModel &model,
                        const RescanCache::Figures *known, const QList<ExtentMap::Stored> &stored)
{
    ExtentMap map = std::move(m_map);
    *this = FileUsage();
    m_map = std::move(map);
    m_fd = fd;
    m_size = st.st_size;
    m_model = &model;
    this->kind = kind;
    if (!m_map.read(fd))
        return false;
    exclusive = m_map.placedBytes() - m_map.sharedBytes();
    const StoredSavings storedSavings(stored);
    QList<ExtentMap::Range> own; // plain data of the file's own, to be estimated
    QList<ExtentMap::Range> unplacedEncoded;
    for (const ExtentMap::Extent &extent : m_map.extents()) {
        const bool inlined = extent.flags & FIEMAP_EXTENT_DATA_INLINE;
        const bool placed = extent.physical != 0 && !inlined;
        // Inline data is as long as the file, not a whole block.
        const qint64 length =
            inlined ? qBound(qint64(0), qint64(st.st_size) - extent.logical, extent.length) : extent.length;
        referenced += length;
        if (!(extent.flags & FIEMAP_EXTENT_ENCODED)) {
            addPlain(extent, length, placed, known != nullptr, own);
        } else if (!placed) {
            compressed += length;
            unplacedEncoded.append({extent.logical, length});
        } else {
            compressed += length;
            std::optional<qint64> savings = known ? storedSavings.find(extent.physical) : std::nullopt;
            if (!savings)
                savings = estimate({{extent.logical, length}}).savings;
            extents.append({extent.physical, length, *savings, bool(extent.flags & FIEMAP_EXTENT_SHARED)});
        }
    }
    if (!unplacedEncoded.isEmpty() || known) {
        unplacedSavings = known ? known->inlineSavings : estimate(unplacedEncoded).savings;
        unplacedDisk += qMax(ExtentMap::bytes(unplacedEncoded) - unplacedSavings, qint64(0));
    }
    if (!own.isEmpty()) {
        const CompressionModel::Estimate plain = estimate(own);
        wouldShrink = plain.shrinking;
        wouldSave = plain.savings;
        wouldNotShrink += ExtentMap::bytes(own) - plain.shrinking;
    }
    return true;
}

void FileUsage::addPlain(const ExtentMap::Extent &extent, qint64 length, bool placed, bool known,
                         QList<ExtentMap::Range> &own)
{
    const bool shared = extent.flags & FIEMAP_EXTENT_SHARED;
    if (placed)
        extents.append({extent.physical, length, -1, shared});
    else
        unplacedDisk += length;
    if (kind != Kind::Compressible)
        return;
    if (shared)
        plainShared += length;
    else if (known || (extent.flags & FIEMAP_EXTENT_UNWRITTEN))
        wouldNotShrink += length; // the helper found it would not shrink; preallocated space holds no data
    else if (!own.isEmpty() && own.last().start + own.last().length == extent.logical)
        own.last().length += length;
    else
        own.append({extent.logical, length});
}
