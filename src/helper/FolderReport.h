#pragma once

#include "btrfs/FolderWalker.h"
#include "btrfs/SkippedFiles.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>

// What became of the files of one watched folder in one job, for the log: its counts, and
// every file or folder left as it is with the reason. Filled on the compression thread and told
// on the main thread, which remembers per watched folder what it has told: each item gets a
// line of its own the first time, and the job's one line (for a pass over the whole folder
// always, for a smaller job only when it has something new) names the first few of each
// reason. Names stay bytes until they are logged.
class FolderReport
{
public:
    // Names per reason in the job's line; the rest are counted.
    static constexpr qsizetype kNamed = 3;

    // Files, then folders the walk left out.
    enum class Reason : quint8 {
        Unreadable,
        InUse, // another program writes to it: tried again when it changes
        NoCopyOnWrite,
        SwapFile,
        StaysPlain,
        Failed,
        FolderUnreadable,
        Excluded,
        OtherFileSystem,
        ReadOnlySubvolume,
    };
    struct Item {
        QByteArray relative; // to the watched folder
        Reason reason = Reason::Unreadable;
        int error = 0; // errno, where one says why
        bool operator==(const Item &) const = default;
        friend size_t qHash(const Item &item, size_t seed)
        {
            return qHashMulti(seed, item.relative, int(item.reason), item.error);
        }
    };

    FolderReport() = default;
    // wholeFolder: the job looks through the whole watched folder.
    FolderReport(const QByteArray &folder, bool wholeFolder);

    void compressed() { ++m_compressed; }
    void alreadyCompressed() { ++m_already; }
    void wouldNotShrink() { ++m_plain; }
    void shared(qint64 bytes)
    {
        m_sharedBytes += bytes;
        m_shared += bytes > 0;
    }
    void leftAlone(const QByteArray &relative, Reason reason, int error = 0);
    void skipped(const QByteArray &relative, SkippedFiles::Reason reason);
    void leftOut(const QList<FolderWalker::LeftOut> &folders);

    qint64 sharedBytes() const { return m_sharedBytes; }
    // Logs what told does not hold yet, adding it there; waiting: the job stopped for want of
    // disk space.
    void tell(QSet<Item> &told, bool waiting) const;

private:
    QString path(const QByteArray &relative) const;
    void log(const Item &item) const;
    QString summary(const QList<Item> &fresh, bool waiting) const;

    QByteArray m_folder;
    bool m_wholeFolder = false;
    qsizetype m_compressed = 0;
    qsizetype m_already = 0;
    qsizetype m_plain = 0;
    qsizetype m_shared = 0;
    qint64 m_sharedBytes = 0;
    QList<Item> m_items; // in the order met
};
