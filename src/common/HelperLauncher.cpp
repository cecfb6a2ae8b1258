#include "common/HelperLauncher.h"

#include "common/HelperIdentity.h"
#include "platform/FileManager.h"
#include "platform/Workspace.h"

#include <QUrl>

namespace {

constexpr unsigned kHelperPermissions = 0755; // compared for equality

} // namespace

HelperLauncher::HelperLauncher(const Bundle *paneBundle)
    : m_applicationPath(HelperIdentity::applicationPath(paneBundle))
{
}

bool HelperLauncher::isRunning()
{
    return !Workspace::shared()->runningApplicationsWithBundleIdentifier(HelperIdentity::bundleIdentifier()).isEmpty();
}

bool HelperLauncher::hasExpectedPermissions() const
{
    return FileManager::posixPermissionsOfItemAtPath(HelperIdentity::executablePath(m_applicationPath))
        == kHelperPermissions;
}

std::optional<HelperLauncher::Launch> HelperLauncher::launch() const
{
    if (m_applicationPath.isEmpty())
        return std::nullopt;
    Launch result;
    // A directory URL, as the workspace is handed an application bundle.
    result.application = Workspace::shared()->launchApplicationAtURL(QUrl::fromLocalFile(m_applicationPath + u'/'),
                                                                     Workspace::LaunchAsync, &result.error);
    return result;
}

QString HelperLauncher::relaunchToolPath() const
{
    return HelperIdentity::relaunchToolPath(m_applicationPath);
}
