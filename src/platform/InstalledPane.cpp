#include "platform/InstalledPane.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

QStringList InstalledPane::searchPaths()
{
    const QString name = QLatin1String(kBundleName);
    QStringList paths;
    const QString home = QFile::decodeName(qgetenv("HOME"));
    if (QDir::isAbsolutePath(home))
        paths << QDir::cleanPath(home + QStringLiteral("/.local/lib/vantor/") + name);
    // <prefix>/bin/<program> -> <prefix>/<libdir>/vantor/, also where libdir is multiarch.
    paths << QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../" VANTOR_LIBDIR "/") + name);
    paths << QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../lib/vantor/") + name);
    paths << QStringLiteral("/usr/local/lib/vantor/") + name << QStringLiteral("/usr/lib/vantor/") + name;
    paths.removeDuplicates();
    return paths;
}

QString InstalledPane::find()
{
    for (const QString &path : searchPaths()) {
        if (QFileInfo::exists(path + QStringLiteral("/Contents/Info.plist")))
            return path;
    }
    return {};
}
