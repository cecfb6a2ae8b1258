#include "btrfs/CompressionModel.h"

#include <zstd.h>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

CompressionModel::CompressionModel()
    : m_context(ZSTD_createCCtx())
    , m_input(size_t(kChunkSize))
    , m_output(ZSTD_compressBound(size_t(kChunkSize)))
{
}

CompressionModel::~CompressionModel()
{
    ZSTD_freeCCtx(m_context);
}

qint64 CompressionModel::savingsForChunk(const char *data, qint64 size)
{
    const size_t compressed =
        ZSTD_compressCCtx(m_context, m_output.data(), m_output.size(), data, size_t(size), kLevel);
    const qint64 plain = roundUpToBlock(size);
    if (ZSTD_isError(compressed))
        return 0;
    const qint64 stored = roundUpToBlock(qint64(compressed));
    return stored < plain ? plain - stored : 0;
}

qint64 CompressionModel::savingsForFile(int fd)
{
    struct stat st { };
    if (::fstat(fd, &st) != 0)
        return -1;
    return savingsForRanges(fd, {{0, st.st_size}});
}

qint64 CompressionModel::savingsForRanges(int fd, const QList<ExtentMap::Range> &ranges)
{
    struct stat st { };
    if (::fstat(fd, &st) != 0)
        return -1;
    return estimateRanges(fd, st.st_size, ranges).savings;
}

CompressionModel::Estimate CompressionModel::estimateRanges(int fd, qint64 size, const QList<ExtentMap::Range> &ranges)
{
    Estimate estimate;
    if (size <= kBlockSize)
        return estimate;
    int chunks = 0;
    for (const ExtentMap::Range &range : ranges) {
        const qint64 end = qMin(range.start + range.length, size);
        for (qint64 offset = range.start; offset < end;) {
            const ssize_t n = ::pread(fd, m_input.data(), size_t(qMin(kChunkSize, end - offset)), offset);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return {0, -1, estimate.read};
            if (n == 0)
                break; // shrank while read
            estimate.read += n;
            if (const qint64 saved = savingsForChunk(m_input.data(), n); saved > 0) {
                estimate.savings += saved;
                estimate.shrinking += roundUpToBlock(n);
            }
            offset += n;
            if (++chunks == kProbeChunks && estimate.savings == 0)
                return estimate;
        }
    }
    return estimate;
}
