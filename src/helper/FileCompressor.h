#pragma once

#include <QByteArray>
#include <QList>

#include <atomic>
#include <functional>
#include <sys/stat.h>

#include "helper/FolderWalker.h"

// Compresses a list of files of one watched folder, at idle priority: each file is read for
// an estimate of what zstd saves, and a file that would shrink is rewritten compressed
// (unless it already is). The estimate of the next files is worked out on a second thread
// while the file system rewrites the current one: the two together take little longer than
// the rewrite alone.
class FileCompressor
{
public:
    struct Outcome {
        qint64 savings = 0;
        // The file is done for as long as it stays as st says (it shrank, was already
        // compressed, or would not shrink); false when it must be tried again later.
        bool settled = false;
        struct stat st {};
    };
    // Called in order for each file handled; index into the list given.
    using Done = std::function<void(qsizetype index, const Outcome &outcome)>;
    // Waits while the helper is paused; false when the work should end.
    using MayGoOn = std::function<bool()>;

    FileCompressor(int rootFd, const std::atomic<bool> &cancel);

    void compress(const QList<QByteArray> &paths, const MayGoOn &mayGoOn, const Done &done);

    FolderWalker::Unreadable &unreadable() { return m_unreadable; }

private:
    int openForReading(const QByteArray &path) const;

    int m_rootFd;
    const std::atomic<bool> &m_cancel;
    FolderWalker::Unreadable m_unreadable;
};
