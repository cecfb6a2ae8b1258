#pragma once

#include <QByteArray>
#include <QList>

#include <atomic>
#include <functional>
#include <sys/stat.h>

#include "btrfs/ExtentMap.h"
#include "helper/FolderReport.h"
#include "btrfs/FolderWalker.h"

class SkippedFiles;

// Compresses a list of files of one watched folder, at idle priority. Each file is read for
// where its data lies and what zstd would save: only its own plain ranges are rewritten, so
// data shared with a snapshot or a copy stays shared; files btrfs cannot or will not compress
// are skipped and remembered. The estimate of the next files is worked out on a second
// thread while the file system rewrites the current one. With little free space the files
// that free most go first.
class FileCompressor
{
public:
    struct Outcome {
        qint64 savings = 0; // of data only this file can hold (inline)
        qint64 shared = 0; // plain data shared with snapshots or copies, left as it is
        QList<ExtentMap::Stored> stored; // savings of its compressed extents
        // The file is done for as long as it stays as st says (compressed, found compressed,
        // skipped for a reason, or would not shrink); false when it must be tried again.
        bool settled = false;
        struct stat st { };
    };
    // Called in order for each file handled; index into the list given.
    using Done = std::function<void(qsizetype index, const Outcome &outcome)>;
    // Waits while the helper is paused; false when the work should end.
    using MayGoOn = std::function<bool()>;

    FileCompressor(int rootFd, const QByteArray &rootPath, SkippedFiles &skipped, const std::atomic<bool> &cancel);

    void compress(const QList<QByteArray> &paths, const MayGoOn &mayGoOn, const Done &done);

    // The disk was too full to go on.
    bool ranOutOfSpace() const { return m_noSpace; }
    FolderWalker::Unreadable &unreadable() { return m_unreadable; }
    const FolderReport &report() const { return m_report; }

private:
    int m_rootFd;
    SkippedFiles &m_skipped;
    const std::atomic<bool> &m_cancel;
    FolderWalker::Unreadable m_unreadable;
    FolderReport m_report;
    bool m_noSpace = false;
};
