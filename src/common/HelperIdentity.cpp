#include "common/HelperIdentity.h"

#include "platform/Bundle.h"

// VANTOR_HELPER_IDENTIFIER, VANTOR_HELPER_NAME and VANTOR_RELAUNCH_DIR are defined by the
// top-level CMakeLists.txt.

QString HelperIdentity::bundleIdentifier()
{
    return QStringLiteral(VANTOR_HELPER_IDENTIFIER);
}

QString HelperIdentity::resourceName()
{
    return QStringLiteral(VANTOR_HELPER_NAME);
}

QString HelperIdentity::resourceType()
{
    return QStringLiteral("app");
}

QString HelperIdentity::bundleName()
{
    return resourceName() + u'.' + resourceType();
}

QString HelperIdentity::applicationPath(const Bundle *paneBundle)
{
    return paneBundle ? paneBundle->pathForResource(resourceName(), resourceType()) : QString();
}

QString HelperIdentity::applicationPathInPane(const QString &panePath)
{
    return panePath + QStringLiteral("/Contents/Resources/") + bundleName();
}

QString HelperIdentity::infoPlistPath(const QString &applicationPath)
{
    return applicationPath + QStringLiteral("/Contents/Info.plist");
}

QString HelperIdentity::executablePath(const QString &applicationPath)
{
    return applicationPath + QStringLiteral("/Contents/MacOS/") + resourceName();
}

QString HelperIdentity::relaunchToolPath(const QString &applicationPath)
{
    return applicationPath + QStringLiteral("/" VANTOR_RELAUNCH_DIR "/relaunch");
}
