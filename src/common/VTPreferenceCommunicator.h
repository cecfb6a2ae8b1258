#pragma once

#include <QObject>

#include "common/VantorCommonExport.h"

struct DistributedNotification;

// Sends the pane's requests to the helper as distributed notifications.
class VANTOR_COMMON_EXPORT VTPreferenceCommunicator : public QObject
{
    Q_OBJECT
public:
    static VTPreferenceCommunicator *sharedCommunicatorController();
    // The first call makes the shared instance; later calls return null.
    static VTPreferenceCommunicator *create();

    void observeFolderDefaults();
    void folderChanged(const DistributedNotification &notification);

    void notifyFoldersChanged();
    void notifyHelperShouldKeepAlive();
    void notifyHelperShouldQuit();
    void notifyHelperActiveStatusChanged();
    void notifyHelperShouldCheckForUpdates();
    void notifyAutomaticUpdatesEnabled();
    void notifyAutomaticUpdatesDisabled();

private:
    VTPreferenceCommunicator();
};
