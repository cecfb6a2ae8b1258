#pragma once

#include <QList>
#include <QString>
#include <QUrl>

#include "platform/VantorPlatformExport.h"

class RunningApplication;

// The desktop's workspace: launching application bundles, finding running applications by
// bundle identifier, opening URLs. An application is running while its bundle identifier is
// an owned session-bus name. Behind an interface so unit tests can use a fake.
class VANTOR_PLATFORM_EXPORT Workspace
{
public:
    enum LaunchOption {
        LaunchAsync = 0x10000, // return once started, without waiting for it to come up
    };
    Q_DECLARE_FLAGS(LaunchOptions, LaunchOption)

    virtual ~Workspace();

    // Starts the application bundle at path (Contents/MacOS/<CFBundleExecutable>), detached.
    // An application already running under the bundle's identifier is returned instead of
    // starting a second one. Null with *error set when it cannot be started. The workspace
    // owns the result; it stays valid at least until its "terminated" change has been sent.
    virtual RunningApplication *launchApplicationAtURL(const QUrl &url, LaunchOptions options, QString *error) = 0;
    virtual QList<RunningApplication *> runningApplicationsWithBundleIdentifier(const QString &bundleIdentifier) = 0;
    virtual bool openURL(const QUrl &url) = 0;

    static Workspace *shared();
    // Replaces the shared instance (tests); null restores the desktop one.
    static void setShared(Workspace *workspace);
};

Q_DECLARE_OPERATORS_FOR_FLAGS(Workspace::LaunchOptions)
