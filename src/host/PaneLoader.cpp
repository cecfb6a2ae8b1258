#include "host/PaneLoader.h"

#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/InstalledPane.h"
#include "gui/PreferencePane.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QPluginLoader>

QStringList PaneLoader::searchPaths()
{
    return InstalledPane::searchPaths();
}

QString PaneLoader::findInstalledPane()
{
    return InstalledPane::find();
}

PreferencePane *PaneLoader::load(const QString &bundlePath, PreferencePaneHost *host, QString *error)
{
    auto failWith = [&](const QString &why) -> PreferencePane * {
        *error = QStringLiteral("cannot load the pane %1: %2").arg(bundlePath, why);
        return nullptr;
    };
    if (!QFileInfo(bundlePath).isDir())
        return failWith(QStringLiteral("no such bundle"));
    Bundle *bundle = Bundle::bundleWithPath(bundlePath);
    if (!bundle || bundle->infoDictionary().isEmpty())
        return failWith(QStringLiteral("Contents/Info.plist is missing or not a property list"));
    const QString executable = bundle->objectForInfoDictionaryKey(QStringLiteral("CFBundleExecutable")).toString();
    if (executable.isEmpty() || executable.contains(u'/'))
        return failWith(QStringLiteral("Info.plist names no library (CFBundleExecutable)"));
    const QString library = bundle->bundlePath() + QStringLiteral("/Contents/Linux/") + executable;
    if (!QFileInfo::exists(library))
        return failWith(QStringLiteral("library %1 is missing").arg(library));

    QPluginLoader loader(library);
    if (loader.metaData().value(QStringLiteral("IID")).toString() != QLatin1String(PreferencePane_iid))
        return failWith(loader.errorString().isEmpty() || loader.metaData().isEmpty()
                            ? QStringLiteral("%1 is not a preference pane").arg(library)
                            : loader.errorString());
    // Never unloaded: the pane's code keeps running even after its bundle is deleted.
    loader.setLoadHints(QLibrary::PreventUnloadHint);
    auto *pane = qobject_cast<PreferencePane *>(loader.instance());
    if (!pane)
        return failWith(loader.errorString());
    pane->initWithBundle(bundle, host);
    return pane;
}
