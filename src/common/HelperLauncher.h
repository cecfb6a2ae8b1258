#pragma once

#include <QString>

#include <optional>

#include "common/VantorCommonExport.h"

class Bundle;
class RunningApplication;

// Starts the helper a pane bundle carries, and tells whether a helper runs. It only reports:
// the caller decides what the user sees (the pane's sheet and log lines, the command line's
// messages).
class VANTOR_COMMON_EXPORT HelperLauncher
{
public:
    // A launch attempt: the running helper (null when it failed) and the platform's error.
    struct Launch {
        RunningApplication *application = nullptr;
        QString error;
    };

    explicit HelperLauncher(const Bundle *paneBundle);

    // The helper inside the pane bundle; empty when there is none.
    QString applicationPath() const { return m_applicationPath; }

    // A helper owns its bus name, or was started by this process and has not ended yet.
    static bool isRunning();

    // The executable's mode is exactly 0755. A missing helper, unreadable attributes or any
    // other mode (0775, 0555) is wrong: the test is equality.
    bool hasExpectedPermissions() const;

    // Asks the workspace to start the helper, detached; a running helper is handed back
    // instead of a second one. nullopt when the bundle holds no helper: nothing was tried.
    std::optional<Launch> launch() const;

    // The update framework's relaunch tool inside the helper.
    QString relaunchToolPath() const;

private:
    QString m_applicationPath;
};
