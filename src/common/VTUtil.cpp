#include "VTUtil.h"

#include "FileManager.h"

#include <QFile>
#include <QMutex>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

QMutex g_folderLock;
QString g_applicationSupportFolder;

} // namespace

QString VTUtil::applicationSupportFolder()
{
    QMutexLocker locker(&g_folderLock);
    if (!g_applicationSupportFolder.isEmpty())
        return g_applicationSupportFolder;

    const QStringList dirs = FileManager::applicationSupportDirectories();
    QString base = dirs.isEmpty() ? FileManager::temporaryDirectory() : dirs.first();
    if (base.isEmpty()) {
        qWarning("vantor: no application-data folder and no private temporary folder for the product folder");
        return g_applicationSupportFolder;
    }
    while (base.size() > 1 && base.endsWith(u'/'))
        base.chop(1);
    const QString folder = base + QStringLiteral("/Vantor");

    // Only existence counts: a plain file of that name is taken as the folder.
    if (!FileManager::fileExists(folder)) {
        // No intermediate folders: the application-data folder itself must exist.
        // User-only, since the folder holds the user's settings and history.
        if (::mkdir(QFile::encodeName(folder).constData(), 0700) != 0) {
            // Every call tries again; say so once, not on every settings write.
            static QString reported;
            if (reported != folder) {
                reported = folder;
                qWarning("vantor: cannot create the product folder %s: %s", qPrintable(folder), std::strerror(errno));
            }
            return g_applicationSupportFolder;
        }
    }
    g_applicationSupportFolder = folder;
    return g_applicationSupportFolder;
}

void VTUtil::forgetApplicationSupportFolder()
{
    QMutexLocker locker(&g_folderLock);
    g_applicationSupportFolder.clear();
}
