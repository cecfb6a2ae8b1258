#include "common/VTDefaultsController.h"
#include "common/CommonLog.h"

#include "platform/ProcessInfo.h"
#include "platform/PropertyList.h"
#include "common/SharedInstance.h"
#include "common/VTPreferenceCommunicator.h"
#include "common/VTUtil.h"

#include <utility>

namespace {

QRecursiveMutex g_lock;
VTDefaultsController *g_shared = nullptr;

} // namespace

VTDefaultsController::VTDefaultsController() = default;

VTDefaultsController *VTDefaultsController::create()
{
    VTDefaultsController *made = SharedInstance::allocate(g_shared, g_lock, [] { return new VTDefaultsController; });
    if (made)
        made->setupDefaultValues();
    return made;
}

void VTDefaultsController::forgetSharedInstance()
{
    QMutexLocker locker(&g_lock);
    delete std::exchange(g_shared, nullptr);
}

VTDefaultsController *VTDefaultsController::sharedDefaultsController()
{
    return SharedInstance::shared(g_shared, g_lock, &VTDefaultsController::create);
}

QString VTDefaultsController::defaultsFileName() const
{
    const QString folder = VTUtil::applicationSupportFolder();
    return folder.isEmpty() ? QString() : folder + u'/' + QLatin1String(kFileName);
}

void VTDefaultsController::setupDefaultValues()
{
    // Not to be killed between reading the file and writing it back.
    SuddenTerminationGuard guard;

    m_defaultValues.clear();
    m_defaultValues.insert(QLatin1String(kFirstRunKey), true);
    m_defaultValues.insert(QLatin1String(kFolderAliasesKey), QVariantList());
    m_defaultValues.insert(QLatin1String(kActiveKey), true);
    m_defaultValues.insert(QLatin1String(kRunAtLoginKey), true);
    m_defaultValues.insert(QLatin1String(kCheckUpdatesKey), true);
    m_defaultValues.insert(QLatin1String(kVisibleKey), true);

    m_defaults.clear();
    reload();
    synchronize();
}

void VTDefaultsController::reload()
{
    const std::optional<QVariant> read = PropertyList::readFile(defaultsFileName());
    m_defaults.clear();
    // No merging: a file with some keys leaves the others absent.
    if (read && read->typeId() == QMetaType::QVariantMap && !read->toMap().isEmpty())
        m_defaults = read->toMap();
    else
        m_defaults = m_defaultValues;
}

void VTDefaultsController::synchronize()
{
    if (!PropertyList::writeFile(defaultsFileName(), m_defaults)) {
        const QString path = defaultsFileName();
        qCWarning(lcCommon, "Could not write preferences to file: %s", path.isEmpty() ? "(null)" : qPrintable(path));
    }
}

bool VTDefaultsController::boolForKey(const char *key) const
{
    const QString k = QLatin1String(key);
    const auto it = m_defaults.constFind(k);
    return PropertyList::boolValue(it != m_defaults.cend() ? *it : m_defaultValues.value(k));
}

void VTDefaultsController::setBoolForKey(const char *key, bool value)
{
    m_defaults.insert(QLatin1String(key), value);
    synchronize();
}

bool VTDefaultsController::firstRun() const
{
    return boolForKey(kFirstRunKey);
}

void VTDefaultsController::setFirstRunDone()
{
    setBoolForKey(kFirstRunKey, false);
}

bool VTDefaultsController::helperActive() const
{
    return boolForKey(kActiveKey);
}

void VTDefaultsController::setHelperActive(bool active)
{
    setBoolForKey(kActiveKey, active);
    Q_EMIT helperActiveChanged();
}

bool VTDefaultsController::checkForUpdates() const
{
    return boolForKey(kCheckUpdatesKey);
}

void VTDefaultsController::setCheckForUpdates(bool check)
{
    setBoolForKey(kCheckUpdatesKey, check);
    // Sent even when the value did not change: the pane re-applies it on every load.
    VTPreferenceCommunicator *communicator = VTPreferenceCommunicator::sharedCommunicatorController();
    if (check)
        communicator->notifyAutomaticUpdatesEnabled();
    else
        communicator->notifyAutomaticUpdatesDisabled();
    Q_EMIT checkForUpdatesChanged();
}

bool VTDefaultsController::autorunAtLogin() const
{
    return boolForKey(kRunAtLoginKey);
}

void VTDefaultsController::setAutorunAtLogin(bool autorun)
{
    setBoolForKey(kRunAtLoginKey, autorun);
    Q_EMIT autorunAtLoginChanged();
}

bool VTDefaultsController::visible() const
{
    return boolForKey(kVisibleKey);
}

void VTDefaultsController::setVisible(bool visible)
{
    setBoolForKey(kVisibleKey, visible);
    Q_EMIT visibleChanged();
}
