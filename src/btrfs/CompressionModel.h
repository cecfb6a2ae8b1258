#pragma once

#include "btrfs/ExtentMap.h"

#include <QtGlobal>

#include <cstddef>
#include <vector>

struct ZSTD_CCtx_s;

// What transparent zstd compression saves for one file, worked out the way btrfs stores
// data: the file is cut into 128 KiB chunks, each compressed at zstd's default level; a
// chunk is kept compressed only when that saves at least one 4 KiB block, otherwise it is
// stored plainly. Files that fit in one block are left out: they gain nothing worth a rewrite.
// Used where the real on-disk figure needs privileges the helper does not have.
class CompressionModel
{
public:
    static constexpr qint64 kChunkSize = 128 * 1024;
    static constexpr qint64 kBlockSize = 4096;
    static constexpr int kLevel = 3; // btrfs's default zstd level
    // A file whose first chunks save nothing is taken for media or an archive: the rest of it
    // is not worked out, which keeps the cost of such files small.
    static constexpr int kProbeChunks = 4;

    CompressionModel();
    ~CompressionModel();
    CompressionModel(const CompressionModel &) = delete;
    CompressionModel &operator=(const CompressionModel &) = delete;

    // Bytes the file's data would save on disk; -1 when it cannot be read.
    qint64 savingsForFile(int fd);
    // The same for some of its byte ranges only.
    qint64 savingsForRanges(int fd, const QList<ExtentMap::Range> &ranges);
    // What compressing ranges of a file of size bytes would do: the bytes in chunks that would
    // shrink (whole blocks), and what they would save; savings -1 when it cannot be read. read:
    // the bytes read to know.
    struct Estimate {
        qint64 shrinking = 0;
        qint64 savings = 0;
        qint64 read = 0;
    };
    Estimate estimateRanges(int fd, qint64 size, const QList<ExtentMap::Range> &ranges);
    // Bytes one chunk would save.
    qint64 savingsForChunk(const char *data, qint64 size);

    static qint64 roundUpToBlock(qint64 bytes) { return (bytes + kBlockSize - 1) / kBlockSize * kBlockSize; }

private:
    ZSTD_CCtx_s *m_context;
    std::vector<char> m_input;
    std::vector<char> m_output;
};
