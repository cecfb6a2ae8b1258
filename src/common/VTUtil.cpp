#include "common/VTUtil.h"
#include "common/CommonLog.h"

#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "common/HistoryContext.h"
#include "common/HistoryModel.h"
#include "common/HistoryStore.h"

#include <QFile>
#include <QMutex>

#include <cerrno>
#include <cstring>

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
        qCWarning(lcCommon, "no application-data folder and no private temporary folder for the product folder");
        return g_applicationSupportFolder;
    }
    while (base.size() > 1 && base.endsWith(u'/'))
        base.chop(1);
    const QString folder = base + QStringLiteral("/Vantor");

    // Only existence counts: a plain file of that name is taken as the folder.
    if (!FileManager::fileExists(folder)) {
        // No intermediate folders: the application-data folder itself must exist.
        // User-only, since the folder holds the user's settings and history.
        QString error;
        if (!FileManager::createDirectoryAtPath(folder, 0700, &error)) {
            // Every call tries again; say so once, not on every settings write.
            static QString reported;
            if (reported != folder) {
                reported = folder;
                qCWarning(lcCommon, "cannot create the product folder %s: %s", qPrintable(folder), qPrintable(error));
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

QString VTUtil::getPrettySize(quint64 size)
{
    if (size <= 1023)
        return QString::asprintf("%lld b", static_cast<long long>(size));

    // Single precision on purpose: the rounding of the float quotient is what users see.
    const float value = static_cast<float>(size);
    float quotient;
    const char *suffix;
    if (size <= 999999) {
        quotient = value / 1000.0f;
        suffix = " KB";
    } else if (size <= 999999999) {
        quotient = value / 1000000.0f;
        suffix = " MB";
    } else {
        quotient = value / 1000000000.0f;
        suffix = " GB";
    }
    const double q = quotient;
    // QString::asprintf ignores the process locale, so the decimal point is always a point.
    const char *format = q < 10.0 ? "%.2f%s" : q < 100.0 ? "%.1f%s" : "%.0f%s";
    return QString::asprintf(format, q, suffix);
}

namespace {

std::shared_ptr<const HistoryModel> g_model;
std::unique_ptr<HistoryStore> g_coordinator;
std::unique_ptr<HistoryContext> g_context;
// A modal alert while the stack is built runs a nested event loop; nothing may rebuild then.
bool g_building = false;

} // namespace

std::shared_ptr<const HistoryModel> VTUtil::managedObjectModel()
{
    if (!g_model)
        g_model = HistoryModel::mergedModelFromBundles({Bundle::mainBundle()});
    return g_model;
}

HistoryStore *VTUtil::persistentStoreCoordinator()
{
    if (g_coordinator || g_building)
        return g_coordinator.get();
    g_building = true;
    g_coordinator =
        HistoryStore::coordinatorWithModel(managedObjectModel(), "VTUtil", "persistentStoreCoordinator", __FILE__);
    g_building = false;
    return g_coordinator.get();
}

HistoryContext *VTUtil::managedObjectContext()
{
    if (g_context)
        return g_context.get();
    if (HistoryStore *coordinator = persistentStoreCoordinator()) {
        g_context = std::make_unique<HistoryContext>(coordinator);
        return g_context.get();
    }
    if (!g_building)
        HistoryStore::presentError(HistoryStore::initializationError());
    return nullptr;
}

void VTUtil::closeDatabase()
{
    if (g_context && g_context->hasChanges())
        g_context->save();
    g_context.reset();
}

bool VTUtil::ensureIntegrityOfDatabaseAtPath(const QString &path)
{
    return HistoryStore::ensureIntegrityOfDatabaseAtPath(path);
}
