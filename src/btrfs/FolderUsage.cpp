#include "btrfs/FolderUsage.h"

#include <algorithm>

void FolderUsage::append(std::vector<Span> &spans, quint64 start, qint64 length)
{
    spans.push_back({start, start + quint64(length)});
    // Merged now and then, as the list grows: the same few places stay few entries.
    if (spans.size() >= 65536 && (spans.size() & (spans.size() - 1)) == 0)
        merge(spans);
}

void FolderUsage::merge(std::vector<Span> &spans)
{
    std::sort(spans.begin(), spans.end(), [](const Span &a, const Span &b) { return a.start < b.start; });
    std::size_t kept = 0;
    for (const Span &span : spans) {
        if (kept > 0 && span.start <= spans[kept - 1].end)
            spans[kept - 1].end = std::max(spans[kept - 1].end, span.end);
        else
            spans[kept++] = span;
    }
    spans.resize(kept);
}

qint64 FolderUsage::bytes(std::vector<Span> &spans)
{
    merge(spans);
    qint64 total = 0;
    for (const Span &span : spans)
        total += qint64(span.end - span.start);
    return total;
}

void FolderUsage::add(const FileUsage &file, const struct stat &st)
{
    all.add(st);
    if (file.kind == FileUsage::Kind::NoCopyOnWrite)
        noCopyOnWrite.add(st);
    else if (file.kind == FileUsage::Kind::SwapFile)
        swapFiles.add(st);
    else if (file.kind == FileUsage::Kind::Excluded)
        excluded.add(st);
    referenced += file.referenced;
    exclusive += file.exclusive;
    compressed += file.compressed;
    wouldShrink += file.wouldShrink;
    wouldSave += file.wouldSave;
    wouldNotShrink += file.wouldNotShrink;
    plainShared += file.plainShared;
    m_unplacedDisk += file.unplacedDisk;
    m_unplacedSavings += file.unplacedSavings;
    for (const FileUsage::Extent &extent : file.extents) {
        // "btrfs filesystem du" takes a compressed extent's place as its start and its
        // uncompressed length: the same spans here.
        if (extent.shared)
            append(m_shared, extent.physical, extent.length);
        if (extent.savings < 0)
            append(m_plain, extent.physical, extent.length);
        else
            m_compressed.insert(extent.physical, {extent.length - extent.savings, extent.savings});
    }
}

void FolderUsage::addUnreadable(const struct stat &st)
{
    all.add(st);
    unreadable.add(st);
}

qint64 FolderUsage::disk() const
{
    qint64 total = m_unplacedDisk + bytes(m_plain);
    for (const Compressed &extent : m_compressed)
        total += extent.disk;
    return total;
}

qint64 FolderUsage::savings() const
{
    qint64 total = m_unplacedSavings;
    for (const Compressed &extent : m_compressed)
        total += extent.savings;
    return total;
}

qint64 FolderUsage::shared() const
{
    return bytes(m_shared);
}
