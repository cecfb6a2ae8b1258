#include "FakeWorkspace.h"

#include "platform/RunningApplication.h"

FakeWorkspace::FakeWorkspace()
{
    Workspace::setShared(this);
}

FakeWorkspace::~FakeWorkspace()
{
    Workspace::setShared(nullptr);
}

RunningApplication *FakeWorkspace::launchApplicationAtURL(const QUrl &url, LaunchOptions options, QString *)
{
    launches.append(url);
    launchOptions.append(options);
    auto *app = new RunningApplication(launchedIdentifier, 40000 + pid_t(launches.size()), this);
    running.append(app);
    return app;
}

QList<RunningApplication *> FakeWorkspace::runningApplicationsWithBundleIdentifier(const QString &bundleIdentifier)
{
    QList<RunningApplication *> result;
    for (RunningApplication *app : std::as_const(running)) {
        if (app->bundleIdentifier() == bundleIdentifier && !app->isTerminated())
            result.append(app);
    }
    return result;
}

bool FakeWorkspace::openURL(const QUrl &url)
{
    openedURLs.append(url);
    return true;
}
