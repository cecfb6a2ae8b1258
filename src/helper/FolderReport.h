#pragma once

#include "btrfs/SkippedFiles.h"

#include <QByteArray>
#include <QMap>
#include <QString>

// What became of each file of one folder in one pass, for the one line the log gets about it.
// Files skipped for a new reason and failures are also logged one by one as they happen.
class FolderReport
{
public:
    static constexpr qsizetype kNamedFailures = 5;

    explicit FolderReport(const QByteArray &folder);

    void compressed() { ++m_compressed; }
    void alreadyCompressed() { ++m_already; }
    void wouldNotShrink() { ++m_plain; }
    void inUse() { ++m_inUse; }
    void shared(qint64 bytes)
    {
        m_sharedBytes += bytes;
        m_shared += bytes > 0;
    }
    // known: remembered from an earlier pass, so not told again.
    void skipped(const QByteArray &path, SkippedFiles::Reason reason, bool known);
    void failed(const QByteArray &path, int error);
    // Items that could not be opened at all.
    void unreadable(qsizetype count, int error);
    // Says once what could not be opened, if anything.
    void logUnreadable() const;

    qint64 sharedBytes() const { return m_sharedBytes; }
    bool anyFailed() const { return m_failed > 0; }
    // waiting: the pass stopped for want of disk space.
    QString summary(bool waiting) const;

private:
    QString name(const QByteArray &path) const;

    QByteArray m_folder;
    qsizetype m_compressed = 0;
    qsizetype m_already = 0;
    qsizetype m_plain = 0;
    qsizetype m_inUse = 0;
    qsizetype m_shared = 0;
    qsizetype m_failed = 0;
    int m_firstError = 0;
    qsizetype m_unreadable = 0;
    int m_unreadableError = 0;
    QMap<SkippedFiles::Reason, qsizetype> m_skipped;
    qint64 m_sharedBytes = 0;
};
