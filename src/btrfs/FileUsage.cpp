#include "btrfs/FileUsage.h"

#include "btrfs/CompressionModel.h"

#include <QHash>

#include <linux/fiemap.h>

#include <optional>

bool FileUsage::measure(int fd, const struct stat &st, Kind kind, CompressionModel &model,
                        const RescanCache::Figures *known, const QList<ExtentMap::Stored> &stored)
{
    ExtentMap map = std::move(m_map);
    *this = FileUsage();
    m_map = std::move(map);
    this->kind = kind;
    if (!m_map.read(fd))
        return false;
    exclusive = m_map.placedBytes() - m_map.sharedBytes();

    // What the helper found for each compressed extent, by its place on disk.
    QHash<quint64, qint64> storedByPlace;
    if (stored.size() > 8) {
        for (const ExtentMap::Stored &extent : stored)
            storedByPlace.insert(extent.physical, extent.savings);
    }
    const auto storedSavings = [&](quint64 physical) -> std::optional<qint64> {
        if (!storedByPlace.isEmpty()) {
            const auto it = storedByPlace.constFind(physical);
            return it == storedByPlace.cend() ? std::nullopt : std::optional<qint64>(*it);
        }
        for (const ExtentMap::Stored &extent : stored) {
            if (extent.physical == physical)
                return extent.savings;
        }
        return std::nullopt;
    };
    const auto estimate = [&](const QList<ExtentMap::Range> &ranges) {
        const CompressionModel::Estimate estimate = model.estimateRanges(fd, st.st_size, ranges);
        read += estimate.read;
        // Data that cannot be read is taken for data that would not shrink.
        return estimate.savings < 0 ? CompressionModel::Estimate() : estimate;
    };

    QList<ExtentMap::Range> own; // plain data of the file's own, to be estimated
    QList<ExtentMap::Range> unplacedEncoded;
    for (const ExtentMap::Extent &extent : m_map.extents()) {
        const bool inlined = extent.flags & FIEMAP_EXTENT_DATA_INLINE;
        const bool shared = extent.flags & FIEMAP_EXTENT_SHARED;
        const bool placed = extent.physical != 0 && !inlined;
        // Inline data is as long as the file, not a whole block.
        const qint64 length =
            inlined ? qBound(qint64(0), qint64(st.st_size) - extent.logical, extent.length) : extent.length;
        referenced += length;
        if (extent.flags & FIEMAP_EXTENT_ENCODED) {
            compressed += length;
            if (!placed) {
                unplacedEncoded.append({extent.logical, length});
                continue;
            }
            std::optional<qint64> savings = known ? storedSavings(extent.physical) : std::nullopt;
            if (!savings)
                savings = estimate({{extent.logical, length}}).savings;
            extents.append({extent.physical, length, *savings, shared});
            continue;
        }
        if (placed)
            extents.append({extent.physical, length, -1, shared});
        else
            unplacedDisk += length;
        if (kind != Kind::Compressible)
            continue;
        if (shared)
            plainShared += length;
        else if (known || (extent.flags & FIEMAP_EXTENT_UNWRITTEN))
            wouldNotShrink += length; // the helper found it would not shrink; preallocated space holds no data
        else if (!own.isEmpty() && own.last().start + own.last().length == extent.logical)
            own.last().length += length;
        else
            own.append({extent.logical, length});
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
