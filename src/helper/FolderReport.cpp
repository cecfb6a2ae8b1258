#include "helper/FolderReport.h"

#include "common/VTUtil.h"
#include "helper/HelperLog.h"

#include <QFile>
#include <QStringList>

#include <cstring>

namespace {

QString count(qsizetype n, const char *what)
{
    return QStringLiteral("%1 %2%3").arg(n).arg(QLatin1String(what)).arg(n == 1 ? QString() : QStringLiteral("s"));
}

} // namespace

FolderReport::FolderReport(const QByteArray &folder)
    : m_folder(folder)
{
}

QString FolderReport::name(const QByteArray &path) const
{
    return QFile::decodeName(m_folder + '/' + path);
}

void FolderReport::skipped(const QByteArray &path, SkippedFiles::Reason reason, bool known)
{
    ++m_skipped[reason];
    if (!known)
        qCInfo(lcHelper, "\"%s\" was left as it is: %s", qPrintable(name(path)),
               qPrintable(SkippedFiles::describe(reason)));
}

void FolderReport::failed(const QByteArray &path, int error)
{
    if (m_failed++ == 0)
        m_firstError = error;
    // The first few by name; a folder of other users' files would flood the log otherwise.
    if (m_failed <= kNamedFailures)
        qCWarning(lcHelper, "\"%s\" could not be compressed: %s", qPrintable(name(path)), std::strerror(error));
}

void FolderReport::unreadable(qsizetype count, int error)
{
    if (m_unreadable == 0)
        m_unreadableError = error;
    m_unreadable += count;
}

void FolderReport::logUnreadable() const
{
    if (m_unreadable > 0)
        qCWarning(lcHelper, "%lld items in \"%s\" could not be opened (%s) and were left as they are",
                  static_cast<long long>(m_unreadable), qPrintable(QFile::decodeName(m_folder)),
                  std::strerror(m_unreadableError));
}

QString FolderReport::summary(bool waiting) const
{
    QStringList parts{count(m_compressed, "file") + QStringLiteral(" compressed")};
    if (m_already)
        parts.append(QStringLiteral("%1 already compressed").arg(m_already));
    if (m_plain)
        parts.append(QStringLiteral("%1 would not shrink").arg(m_plain));
    qsizetype skipped = 0;
    for (const qsizetype n : m_skipped)
        skipped += n;
    if (skipped)
        parts.append(QStringLiteral("%1 skipped because btrfs cannot compress them").arg(skipped));
    if (m_inUse)
        parts.append(QStringLiteral("%1 in use, left for later").arg(m_inUse));
    if (m_failed)
        parts.append(
            QStringLiteral("%1 failed (%2)").arg(m_failed).arg(QString::fromLocal8Bit(std::strerror(m_firstError))));
    if (m_shared)
        parts.append(QStringLiteral("%1 with %2 shared with snapshots or copies left as it is")
                         .arg(m_shared)
                         .arg(VTUtil::getPrettySize(quint64(m_sharedBytes))));
    if (waiting)
        parts.append(QStringLiteral("the rest waits for disk space"));
    return QStringLiteral("\"%1\": %2").arg(QFile::decodeName(m_folder), parts.join(QStringLiteral(", ")));
}
