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

} // namespace

FilePlan FilePlan::open(const JobTag &tag, int rootFd, const QByteArray &path, const QByteArray &folder,
                        SkippedFiles &skipped)
{
    FilePlan plan;
    plan.m_tag = tag;
    plan.m_path = path;
    plan.m_folder = folder;
    plan.m_fd = FolderWalker::openNoAtime(rootFd, path.constData(), O_RDONLY | O_NOFOLLOW);
    if (plan.m_fd < 0) {
        plan.m_error = errno == ENOENT ? 0 : errno;
        return plan;
    }
    if (::fstat(plan.m_fd, &plan.m_st) != 0 || !S_ISREG(plan.m_st.st_mode)) {
        plan.close();
        return plan;
    }
    plan.m_skip = skipped.find(plan.m_st);
    plan.m_knownSkip = plan.m_skip.has_value();
    if (!plan.m_skip)
        plan.m_skip = SkippedFiles::cannotCompress(plan.m_fd);
    if (plan.m_skip) {
        skipped.add(plan.m_st, *plan.m_skip);
        return plan;
    }
    ExtentMap map;
    if (!map.read(plan.m_fd))
        return plan;
    plan.m_compressed = map.placed();
    plan.m_inline = map.unplaced();
    plan.m_plain = map.plainOwn();
    plan.m_unwritten = map.unwritten();
    plan.m_figures.sharedPlain = map.plainShared();
    return plan;
}

FilePlan::FilePlan(FilePlan &&other) noexcept
{
    *this = std::move(other);
}

FilePlan &FilePlan::operator=(FilePlan &&other) noexcept
{
    if (this == &other)
        return *this;
    close();
    m_tag = other.m_tag;
    m_path = std::move(other.m_path);
    m_folder = std::move(other.m_folder);
    m_fd = std::exchange(other.m_fd, -1);
    m_error = other.m_error;
    m_st = other.m_st;
    m_skip = other.m_skip;
    m_knownSkip = other.m_knownSkip;
    m_compressed = std::move(other.m_compressed);
    m_inline = std::move(other.m_inline);
    m_plain = std::move(other.m_plain);
    m_unwritten = std::move(other.m_unwritten);
    m_nextCompressed = other.m_nextCompressed;
    m_nextPlain = other.m_nextPlain;
    m_plainOffset = other.m_plainOffset;
    m_inlineDone = other.m_inlineDone;
    m_chunks = std::move(other.m_chunks);
    m_probeSavings = other.m_probeSavings;
    m_ranges = std::move(other.m_ranges);
    m_estimated = other.m_estimated;
    m_figures = std::move(other.m_figures);
    result = other.result;
    resultError = other.resultError;
    return *this;
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
    return qMax(model.savingsForRanges(m_fd, {range}), qint64(0));
}

bool FilePlan::estimate(CompressionModel &model, qint64 budgetMs)
{
    if (m_fd < 0 || m_skip)
        return true;
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
            const qint64 savings = savingsOf(model, chunk);
            m_chunks.append({chunk.start, chunk.length, savings});
            m_probeSavings += savings;
            // Media and archives: the first chunks save nothing, so the rest is not worked out.
            if (m_chunks.size() == CompressionModel::kProbeChunks && m_probeSavings == 0) {
                m_chunks.clear();
                m_nextPlain = m_plain.size();
                return true;
            }
        }
    }
    // Chunks that shrink, neighbours merged; those that would not are left as they are.
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

bool FilePlan::verify(CompressionModel &model, SkippedFiles &skipped)
{
    ExtentMap after;
    if (!after.read(m_fd, true) || ::fstat(m_fd, &m_st) != 0)
        return false;
    bool compressed = false;
    for (const ExtentMap::Placed &extent : after.placed()) {
        if (ExtentMap::overlap(extent.range, m_ranges) == 0)
            continue;
        compressed = true;
        // btrfs cuts each range into chunks from its start, as the estimate did; an extent
        // that is no such chunk is worked out again.
        const auto chunk = std::lower_bound(m_chunks.cbegin(), m_chunks.cend(), extent.range.start,
                                            [](const Chunk &c, qint64 start) { return c.start < start; });
        const bool known =
            chunk != m_chunks.cend() && chunk->start == extent.range.start && chunk->length == extent.range.length;
        m_figures.extents.append({extent.physical, known ? chunk->savings : savingsOf(model, extent.range)});
    }
    if (const qint64 inlined = ExtentMap::overlap({0, m_st.st_size}, after.unplaced()); inlined > 0) {
        // A small file compressed into the metadata.
        compressed = compressed || ExtentMap::overlap({0, inlined}, m_ranges) > 0;
        m_figures.inlineSavings = qMax(model.savingsForRanges(m_fd, after.unplaced()), qint64(0));
    }
    // A rewrite can succeed and leave the data as it was: such a file is remembered, so it is
    // not rewritten on every pass.
    if (!compressed)
        skipped.add(m_st, SkippedFiles::Reason::StaysPlain);
    return true;
}
