#pragma once

#include "btrfs/ExtentMap.h"
#include "btrfs/RescanCache.h"
#include "btrfs/SkippedFiles.h"
#include "helper/FolderJob.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>

#include <memory>
#include <optional>
#include <sys/stat.h>

class CompressionModel;

// One file's way through the helper. Planned: where its data lies (FIEMAP), what zstd would
// save in each 128 KiB chunk of its own plain data, and so which ranges are worth handing to
// btrfs (chunks that would not shrink are left out, as is data a snapshot or a copy shares).
// Rewritten by btrfs. Verified: what btrfs really stored compressed, each new extent with the
// savings the model worked out for its chunk, so a chunk is compressed twice at most: once by
// the model, once by btrfs.
class FilePlan
{
public:
    enum class Result { Pending, Rewritten, InUse, NoSpace, Failed, Cancelled };
    struct Chunk {
        qint64 start;
        qint64 length;
        qint64 savings;
    };

    // Opens path below rootFd and reads its extents; check skip() and error() before more.
    static std::shared_ptr<FilePlan> open(const JobTag &tag, int rootFd, const QByteArray &path,
                                          const QByteArray &folder, SkippedFiles &skipped);
    FilePlan() = default;
    FilePlan(const FilePlan &) = delete;
    FilePlan &operator=(const FilePlan &) = delete;
    ~FilePlan();

    // Lets go of the file while the plan waits (a nearly full disk plans a whole folder before
    // it starts), and takes it up again: false when it is no longer the file planned.
    void closeFile() { close(); }
    bool reopen(int rootFd);

    // Works the estimate out, for at most budgetMs; true once it is complete.
    bool estimate(CompressionModel &model, qint64 budgetMs);
    bool isEstimated() const { return m_estimated >= 0; }
    // Once rewritten: the file's figures as btrfs stored it. False when it could not be read.
    bool verify(CompressionModel &model);
    // Verified, and btrfs kept the data it was given uncompressed.
    bool staysPlain() const { return m_staysPlain; }

    const JobTag &tag() const { return m_tag; }
    const QByteArray &path() const { return m_path; }
    const QByteArray &folder() const { return m_folder; }
    int fd() const { return m_fd; }
    // errno of the open; 0 when it opened or is simply gone.
    int error() const { return m_error; }
    bool isOpen() const { return m_fd >= 0; }
    std::optional<SkippedFiles::Reason> skip() const { return m_skip; }
    // The ranges worth rewriting, and what rewriting them would save.
    const QList<ExtentMap::Range> &ranges() const { return m_ranges; }
    // Of the file's data, what is still waiting in memory to be written.
    const QList<ExtentMap::Range> &unwritten() const { return m_unwritten; }
    qint64 estimated() const { return qMax(m_estimated, qint64(0)); }
    bool hadCompressedData() const { return !m_figures.extents.isEmpty() || m_figures.inlineSavings > 0; }
    const RescanCache::Figures &figures() const { return m_figures; }
    // The file's status when it was last looked at.
    const struct stat &status() const { return m_st; }
    // Whether the data was written to since the file was opened (its size or modification time).
    bool changedSinceOpened() const;

    Result result = Result::Pending;
    int resultError = 0;
    int compressor = -1; // the one it was given to

private:
    void close();
    qint64 savingsOf(CompressionModel &model, const ExtentMap::Range &range) const;

    JobTag m_tag;
    QByteArray m_path;
    QByteArray m_folder;
    int m_fd = -1;
    int m_error = 0;
    struct stat m_st { };
    std::optional<SkippedFiles::Reason> m_skip;
    // What was read and is still to be estimated.
    QList<ExtentMap::Placed> m_compressed; // already compressed extents, to be estimated
    QList<ExtentMap::Range> m_inline; // compressed data without a place of its own
    QList<ExtentMap::Range> m_plain; // the file's own plain data
    QList<ExtentMap::Range> m_unwritten;
    qsizetype m_nextCompressed = 0;
    qsizetype m_nextPlain = 0;
    qint64 m_plainOffset = 0;
    bool m_inlineDone = false;
    QList<Chunk> m_chunks; // estimated chunks of the plain data, in order
    qint64 m_probeSavings = 0;
    QList<ExtentMap::Range> m_ranges;
    qint64 m_estimated = -1; // until the estimate is complete
    bool m_staysPlain = false;
    RescanCache::Figures m_figures;
};

// Handed from thread to thread in messages, held by one at a time.
using FilePlanPtr = std::shared_ptr<FilePlan>;
Q_DECLARE_METATYPE(FilePlanPtr)
