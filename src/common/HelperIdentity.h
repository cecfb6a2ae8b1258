#pragma once

#include <QString>

#include "common/VantorCommonExport.h"

class Bundle;

// Who the helper is and where its parts lie, said once for the pane, the login items, the
// command line, the helper itself, the tests and the benchmarks. The values come from the
// top-level CMakeLists.txt, which also lays out the bundle and writes its Info.plist.
class VANTOR_COMMON_EXPORT HelperIdentity
{
public:
    // "CFBundleIdentifier" of the helper, and the session-bus name it owns while it runs.
    static QString bundleIdentifier();
    static QString busName() { return bundleIdentifier(); }
    // Where the running helper answers "Status" on the session bus: the object path, and the
    // interface, named as the bus name. It returns three strings: "idle", "working" or
    // "waiting"; while waiting, why ("switched off", "battery", "power saver", "busy machine",
    // "disk space"); and the same in a few words for people.
    static QString statusPath() { return QStringLiteral("/com/quillfen/VantorHelper"); }
    static QString statusInterface() { return bundleIdentifier(); }

    // The helper is the pane's resource <name>.<type>: "VantorHelper" of type "app".
    static QString resourceName();
    static QString resourceType();
    static QString bundleName(); // "VantorHelper.app"

    // The helper inside the pane bundle, empty when the bundle is null or holds none.
    static QString applicationPath(const Bundle *paneBundle);
    // Where the pane bundle at panePath keeps the helper, whether or not it is there.
    static QString applicationPathInPane(const QString &panePath);

    // Below the helper's own bundle at applicationPath.
    static QString infoPlistPath(const QString &applicationPath);
    static QString executablePath(const QString &applicationPath);
    // The update framework's relaunch tool the helper carries.
    static QString relaunchToolPath(const QString &applicationPath);
};
