#include "helper/FilePlan.h"

#include "btrfs/CompressionModel.h"
#include "btrfs/FolderWalker.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

// What already compressed data saves comes from the cache once known; the first time it is
// worked out, which reads those extents once.
constexpr qint64 kChunk = CompressionModel::kChunkSize;
// How much of a file is read ahead when it is planned; the rest comes as it is read.
constexpr off_t kReadAhead = 2 * 1024 * 1024;

} // namespace

FilePlanPtr FilePlan::open(const JobTag &tag, int rootFd, const QByteArray &path, const QByteArray &folder,
                           SkippedFiles &skipped)
{
    auto plan = std::make_shared<FilePlan>();
    plan->m_tag = tag;
    plan->m_path = path;
    plan->m_folder = folder;
    plan->m_fd = FolderWalker::openNoAtime(rootFd, path.constData(), O_RDONLY | O_NOFOLLOW);
    if (plan->m_fd < 0) {
        plan->m_error = errno == ENOENT ? 0 : errno;
        return plan;
    }
    if (::fstat(plan->m_fd, &plan->m_st) != 0 || !S_ISREG(plan->m_st.st_mode)) {
        plan->close();
        return plan;
    }
    plan->m_skip = skipped.find(plan->m_st);
    if (!plan->m_skip)
        plan->m_skip = SkippedFiles::cannotCompress(plan->m_fd);
    if (plan->m_skip) {
        skipped.add(plan->m_st, *plan->m_skip);
        return plan;
    }
    ExtentMap map;
    if (!map.read(plan->m_fd))
        return plan;
    plan->m_compressed = map.placed();
    plan->m_inline = map.unplaced();
    plan->m_plain = map.plainOwn();
    plan->m_unwritten = map.unwritten();
    plan->m_figures.sharedPlain = map.plainShared();
    // Read from disk while the files before it are worked on, not when its estimate begins.
    if (!plan->m_plain.isEmpty() || !plan->m_compressed.isEmpty())
        ::posix_fadvise(plan->m_fd, 0, kReadAhead, POSIX_FADV_WILLNEED);
    return plan;
}

FilePlan::~FilePlan()
{
    close();
}

void FilePlan::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

bool FilePlan::reopen(int rootFd)
{
    close();
    m_fd = FolderWalker::openNoAtime(rootFd, m_path.constData(), O_RDONLY | O_NOFOLLOW);
    struct stat st { };
    if (m_fd >= 0 && ::fstat(m_fd, &st) == 0 && st.st_dev == m_st.st_dev && st.st_ino == m_st.st_ino
        && st.st_ctim.tv_sec == m_st.st_ctim.tv_sec && st.st_ctim.tv_nsec == m_st.st_ctim.tv_nsec)
        return true;
    close();
    return false;
}

qint64 FilePlan::savingsOf(CompressionModel &model, const ExtentMap::Range &range) const
{
    // btrfs cuts each range it is given into chunks from its start, as the estimate did: a
    // compressed extent is one of those chunks, worked out already. Only one that is not (the
    // file changed meanwhile) is worked out again.
    const auto chunk = std::lower_bound(m_chunks.cbegin(), m_chunks.cend(), range.start,
                                        [](const Chunk &c, qint64 start) { return c.start < start; });
    if (chunk != m_chunks.cend() && chunk->start == range.start && range.length <= chunk->length
        && range.length > chunk->length - CompressionModel::kBlockSize)
        return chunk->savings;
    return qMax(model.savingsForRanges(m_fd, {range}), qint64(0));
}

bool FilePlan::estimate(CompressionModel &model, qint64 budgetMs)
{
    if (m_fd < 0 || m_skip) {
        m_estimated = 0;
        return true;
    }
    QElapsedTimer clock;
    clock.start();
    for (; m_nextCompressed < m_compressed.size(); ++m_nextCompressed) {
        if (clock.elapsed() >= budgetMs)
            return false;
        const ExtentMap::Placed &extent = m_compressed.at(m_nextCompressed);
        m_figures.extents.append({extent.physical, savingsOf(model, extent.range)});
    }
    if (!m_inlineDone) {
        if (!m_inline.isEmpty())
            m_figures.inlineSavings = qMax(model.savingsForRanges(m_fd, m_inline), qint64(0));
        m_inlineDone = true;
    }
    // Plain data chunk by chunk, as btrfs will cut it: from the start of each range.
    for (; m_nextPlain < m_plain.size(); ++m_nextPlain, m_plainOffset = 0) {
        const ExtentMap::Range &range = m_plain.at(m_nextPlain);
        for (; m_plainOffset < range.length; m_plainOffset += kChunk) {
            if (clock.elapsed() >= budgetMs)
                return false;
            const ExtentMap::Range chunk{range.start + m_plainOffset, qMin(kChunk, range.length - m_plainOffset)};
            const qint64 savings = qMax(model.savingsForRanges(m_fd, {chunk}), qint64(0));
            m_chunks.append({chunk.start, chunk.length, savings});
            m_probeSavings += savings;
            // Media and archives: the first chunks save nothing, so the rest is not worked out.
            if (m_chunks.size() == CompressionModel::kProbeChunks && m_probeSavings == 0) {
                m_chunks.clear();
                m_nextPlain = m_plain.size();
                m_estimated = 0;
                return true;
            }
        }
    }
    // Chunks that shrink, neighbours merged; those that would not are left as they are.
    m_estimated = 0;
    for (const Chunk &chunk : std::as_const(m_chunks)) {
        if (chunk.savings <= 0)
            continue;
        m_estimated += chunk.savings;
        if (!m_ranges.isEmpty() && m_ranges.last().start + m_ranges.last().length == chunk.start)
            m_ranges.last().length += chunk.length;
        else
            m_ranges.append({chunk.start, chunk.length});
    }
    return true;
}

bool FilePlan::changedSinceOpened() const
{
    struct stat now { };
    return ::fstat(m_fd, &now) != 0 || now.st_size != m_st.st_size || now.st_mtim.tv_sec != m_st.st_mtim.tv_sec
        || now.st_mtim.tv_nsec != m_st.st_mtim.tv_nsec;
}

bool FilePlan::verify(CompressionModel &model)
{
    // The status first: a write after it makes the figures below look stale, never fresh.
    ExtentMap after;
    if (::fstat(m_fd, &m_st) != 0 || !after.read(m_fd, true))
        return false;
    bool compressed = false;
    for (const ExtentMap::Placed &extent : after.placed()) {
        if (ExtentMap::overlap(extent.range, m_ranges) == 0)
            continue;
        compressed = true;
        m_figures.extents.append({extent.physical, savingsOf(model, extent.range)});
    }
    if (const qint64 inlined = ExtentMap::overlap({0, m_st.st_size}, after.unplaced()); inlined > 0) {
        // A small file compressed into the metadata.
        compressed = compressed || ExtentMap::overlap({0, inlined}, m_ranges) > 0;
        m_figures.inlineSavings = 0;
        for (const ExtentMap::Range &range : after.unplaced())
            m_figures.inlineSavings += savingsOf(model, range);
    }
    // A rewrite can succeed and leave the data as it was.
    m_staysPlain = !compressed;
    return true;
}
