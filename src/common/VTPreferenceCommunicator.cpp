#include "common/VTPreferenceCommunicator.h"

#include "platform/DistributedNotificationCenter.h"
#include "common/Notifications.h"
#include "common/SharedInstance.h"

namespace {

QRecursiveMutex g_lock;
VTPreferenceCommunicator *g_shared = nullptr;

void post(const char *name)
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(name));
}

} // namespace

VTPreferenceCommunicator::VTPreferenceCommunicator() = default;

VTPreferenceCommunicator *VTPreferenceCommunicator::create()
{
    VTPreferenceCommunicator *made =
        SharedInstance::allocate(g_shared, g_lock, [] { return new VTPreferenceCommunicator; });
    if (made)
        made->observeFolderDefaults();
    return made;
}

VTPreferenceCommunicator *VTPreferenceCommunicator::sharedCommunicatorController()
{
    return SharedInstance::shared(g_shared, g_lock, &VTPreferenceCommunicator::create);
}

void VTPreferenceCommunicator::observeFolderDefaults()
{
    DistributedNotificationCenter::defaultCenter()->addObserver(
        this, QLatin1String(Notifications::FoldersRenamed),
        [this](const DistributedNotification &n) { folderChanged(n); });
}

void VTPreferenceCommunicator::folderChanged(const DistributedNotification &)
{
    // Deliberately empty: renamed folders are found again through their alias records.
}

void VTPreferenceCommunicator::notifyFoldersChanged()
{
    post(Notifications::FoldersChanged);
}

void VTPreferenceCommunicator::notifyHelperShouldKeepAlive()
{
    post(Notifications::HelperShouldKeepAlive);
}

void VTPreferenceCommunicator::notifyHelperShouldQuit()
{
    post(Notifications::HelperShouldQuit);
}

void VTPreferenceCommunicator::notifyHelperActiveStatusChanged()
{
    post(Notifications::Active);
}

void VTPreferenceCommunicator::notifyHelperShouldCheckForUpdates()
{
    post(Notifications::HelperShouldCheckForUpdates);
}

void VTPreferenceCommunicator::notifyAutomaticUpdatesEnabled()
{
    post(Notifications::HelperEnableUpdates);
}

void VTPreferenceCommunicator::notifyAutomaticUpdatesDisabled()
{
    post(Notifications::HelperDisableUpdates);
}
