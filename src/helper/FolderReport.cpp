#include "helper/FolderReport.h"

#include "common/VTUtil.h"
#include "helper/HelperLog.h"

#include <QMap>
#include <QStringList>

#include <cstring>

namespace {

using Reason = FolderReport::Reason;

QString count(qsizetype n, const char *one, const char *several)
{
    return QStringLiteral("%1 %2").arg(n).arg(QLatin1String(n == 1 ? one : several));
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Why, for the item's own line.
QString describe(Reason reason, int error)
{
    switch (reason) {
    case Reason::Unreadable:
    case Reason::FolderUnreadable:
        return QStringLiteral("it could not be opened (%1)").arg(errorText(error));
    case Reason::InUse:
        return QStringLiteral("another program was writing to it; it is tried again when it changes");
    case Reason::NoCopyOnWrite:
        return SkippedFiles::describe(SkippedFiles::Reason::NoCopyOnWrite);
    case Reason::SwapFile:
        return SkippedFiles::describe(SkippedFiles::Reason::SwapFile);
    case Reason::StaysPlain:
        return SkippedFiles::describe(SkippedFiles::Reason::StaysPlain);
    case Reason::Failed:
        return QStringLiteral("it could not be compressed (%1)").arg(errorText(error));
    case Reason::Excluded:
        return QStringLiteral("Vantor's exclusion rules name it");
    case Reason::OtherFileSystem:
        return QStringLiteral("another file system is mounted there");
    case Reason::ReadOnlySubvolume:
        return QStringLiteral("it is a read-only subvolume, such as a snapshot: it is not rewritten and does not "
                              "count in the savings");
    }
    return {};
}

// What the job's line calls items of a reason: one, and several.
std::pair<const char *, const char *> noun(Reason reason)
{
    switch (reason) {
    case Reason::Unreadable:
        return {"file that could not be opened", "files that could not be opened"};
    case Reason::InUse:
        return {"file in use, left for later", "files in use, left for later"};
    case Reason::NoCopyOnWrite:
        return {"file with copy-on-write off", "files with copy-on-write off"};
    case Reason::SwapFile:
        return {"swap file in use", "swap files in use"};
    case Reason::StaysPlain:
        return {"file btrfs kept uncompressed", "files btrfs kept uncompressed"};
    case Reason::Failed:
        return {"file that could not be compressed", "files that could not be compressed"};
    case Reason::FolderUnreadable:
        return {"folder that could not be opened", "folders that could not be opened"};
    case Reason::Excluded:
        return {"folder excluded by Vantor's rules", "folders excluded by Vantor's rules"};
    case Reason::OtherFileSystem:
        return {"mount of another file system", "mounts of other file systems"};
    case Reason::ReadOnlySubvolume:
        return {"read-only subvolume (a snapshot)", "read-only subvolumes (snapshots)"};
    }
    return {"", ""};
}

// "2 files that could not be opened (Permission denied): "a", "b"", for each reason and error.
QStringList grouped(const QList<FolderReport::Item> &items)
{
    QMap<std::pair<Reason, int>, QList<QByteArray>> byReason;
    for (const FolderReport::Item &item : items)
        byReason[{item.reason, item.error}].append(item.relative.isEmpty() ? QByteArray(".") : item.relative);
    QStringList groups;
    for (auto it = byReason.cbegin(); it != byReason.cend(); ++it) {
        const auto [one, several] = noun(it.key().first);
        QString group = count(it.value().size(), one, several);
        if (it.key().second != 0)
            group += QStringLiteral(" (%1)").arg(errorText(it.key().second));
        QStringList names;
        for (const QByteArray &name : it.value().first(qMin(it.value().size(), FolderReport::kNamed)))
            names.append(u'"' + HelperLog::name(name) + u'"');
        group += QStringLiteral(": ") + names.join(QStringLiteral(", "));
        if (it.value().size() > FolderReport::kNamed)
            group += QStringLiteral(" and %1 more").arg(it.value().size() - FolderReport::kNamed);
        groups.append(group);
    }
    return groups;
}

} // namespace

FolderReport::FolderReport(const QByteArray &folder, bool wholeFolder)
    : m_folder(folder)
    , m_wholeFolder(wholeFolder)
{
}

QString FolderReport::path(const QByteArray &relative) const
{
    return HelperLog::name(relative.isEmpty() ? m_folder : m_folder + '/' + relative);
}

void FolderReport::leftAlone(const QByteArray &relative, Reason reason, int error)
{
    m_items.append({relative, reason, error});
}

void FolderReport::skipped(const QByteArray &relative, SkippedFiles::Reason reason)
{
    switch (reason) {
    case SkippedFiles::Reason::NoCopyOnWrite:
        return leftAlone(relative, Reason::NoCopyOnWrite);
    case SkippedFiles::Reason::SwapFile:
        return leftAlone(relative, Reason::SwapFile);
    case SkippedFiles::Reason::StaysPlain:
        return leftAlone(relative, Reason::StaysPlain);
    }
}

void FolderReport::leftOut(const QList<FolderWalker::LeftOut> &folders)
{
    for (const FolderWalker::LeftOut &folder : folders) {
        switch (folder.reason) {
        case FolderWalker::LeftOut::Reason::Excluded:
            leftAlone(folder.relative, Reason::Excluded);
            break;
        case FolderWalker::LeftOut::Reason::OtherFileSystem:
            leftAlone(folder.relative, Reason::OtherFileSystem);
            break;
        case FolderWalker::LeftOut::Reason::ReadOnlySubvolume:
            leftAlone(folder.relative, Reason::ReadOnlySubvolume);
            break;
        case FolderWalker::LeftOut::Reason::Unreadable:
            leftAlone(folder.relative, Reason::FolderUnreadable, folder.error);
            break;
        }
    }
}

void FolderReport::tell(QSet<Item> &told, bool waiting) const
{
    QList<Item> fresh;
    for (const Item &item : m_items) {
        if (told.contains(item))
            continue; // told by an earlier job, or met twice in this one
        told.insert(item);
        fresh.append(item);
        log(item);
    }
    if (m_wholeFolder || !fresh.isEmpty())
        qCInfo(lcHelper, "%ls", qUtf16Printable(summary(fresh, waiting)));
}

void FolderReport::log(const Item &item) const
{
    const bool folder = item.reason >= Reason::FolderUnreadable;
    const QString line =
        QStringLiteral("\"%1\" was %2: %3")
            .arg(path(item.relative), folder ? QStringLiteral("left out") : QStringLiteral("left as it is"),
                 describe(item.reason, item.error));
    // Something that went wrong, rather than a rule kept.
    if (item.error != 0)
        qCWarning(lcHelper, "%ls", qUtf16Printable(line));
    else
        qCInfo(lcHelper, "%ls", qUtf16Printable(line));
}

QString FolderReport::summary(const QList<Item> &fresh, bool waiting) const
{
    QStringList parts{count(m_compressed, "file", "files") + QStringLiteral(" compressed")};
    if (m_already)
        parts.append(QStringLiteral("%1 already compressed").arg(m_already));
    if (m_plain)
        parts.append(QStringLiteral("%1 would not shrink").arg(m_plain));
    if (m_shared)
        parts.append(QStringLiteral("%1 with %2 shared with snapshots or copies left as it is")
                         .arg(m_shared)
                         .arg(VTUtil::getPrettySize(quint64(m_sharedBytes))));
    if (waiting)
        parts.append(QStringLiteral("the rest waits for disk space"));
    QString line = QStringLiteral("\"%1\": %2").arg(path({}), parts.join(QStringLiteral(", ")));
    if (!fresh.isEmpty())
        line += QStringLiteral("; left as they are: ") + grouped(fresh).join(QStringLiteral("; "));
    return line;
}
