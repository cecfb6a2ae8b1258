#include "platform/Bundle.h"

#include "platform/PropertyList.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QMutex>

namespace {

QMutex g_lock;
// Bundles live until the process ends, as callers keep their pointers; the table is never
// destroyed either, so nothing looks lost to a leak checker at exit.
QHash<QString, Bundle *> &bundles()
{
    static auto *map = new QHash<QString, Bundle *>;
    return *map;
}

QString executableFile()
{
    const QString exe = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    return exe.isEmpty() ? QCoreApplication::applicationFilePath() : exe;
}

} // namespace

Bundle::Bundle(const QString &path)
    : m_path(path)
{
    if (auto info = PropertyList::readFile(infoPlistPath()); info && info->typeId() == QMetaType::QVariantMap)
        m_info = info->toMap();
}

Bundle *Bundle::bundleWithPath(const QString &path)
{
    if (path.isEmpty())
        return nullptr;
    const QString clean = QDir::cleanPath(QDir::current().absoluteFilePath(path));
    if (!QFileInfo(clean).isDir())
        return nullptr;
    QMutexLocker locker(&g_lock);
    Bundle *&slot = bundles()[clean];
    if (!slot)
        slot = new Bundle(clean);
    return slot;
}

Bundle *Bundle::bundleWithIdentifier(const QString &identifier)
{
    QMutexLocker locker(&g_lock);
    for (Bundle *b : std::as_const(bundles())) {
        if (b->bundleIdentifier() == identifier)
            return b;
    }
    return nullptr;
}

Bundle *Bundle::mainBundle()
{
    const QFileInfo exe(executableFile());
    QDir dir = exe.absoluteDir();
    if (dir.dirName() == QLatin1String("MacOS") && dir.cdUp() && dir.dirName() == QLatin1String("Contents")
        && dir.cdUp())
        return bundleWithPath(dir.absolutePath());
    return bundleWithPath(exe.absolutePath());
}

QString Bundle::resourcePath() const
{
    return m_path + QStringLiteral("/Contents/Resources");
}

QString Bundle::infoPlistPath() const
{
    return m_path + QStringLiteral("/Contents/Info.plist");
}

QString Bundle::bundleIdentifier() const
{
    return m_info.value(QStringLiteral("CFBundleIdentifier")).toString();
}

QString Bundle::executablePath() const
{
    const QString exe = m_info.value(QStringLiteral("CFBundleExecutable")).toString();
    if (exe.isEmpty())
        return {};
    return m_path + QStringLiteral("/Contents/MacOS/") + exe;
}

QString Bundle::pathForResource(const QString &name, const QString &type) const
{
    QString file = resourcePath() + u'/' + name;
    if (!type.isEmpty())
        file += u'.' + type;
    return QFileInfo::exists(file) ? file : QString();
}
