#pragma once

#include <QString>
#include <QStringList>

class PreferencePane;
class PreferencePaneHost;

// Finds and loads a pane bundle (<name>.prefPane/Contents/Info.plist naming the library in
// Contents/Linux/ by CFBundleExecutable). A loaded pane is never unloaded.
class PaneLoader
{
public:
    // Where the host looks, in order: the per-user install, then system-wide ones.
    static QStringList searchPaths();
    // The first bundle of searchPaths() that exists; empty when none does.
    static QString findInstalledPane();
    // The bundle's pane, given its bundle and host; null with *error set to one line when the
    // bundle is missing or broken.
    static PreferencePane *load(const QString &bundlePath, PreferencePaneHost *host, QString *error);
};
