#pragma once

#include "common/HelperIdentity.h"
#include "platform/RunningApplication.h"
#include "platform/Workspace.h"

#include <QObject>

// A workspace that starts nothing: it records launches and reports as running whatever the
// test says, or what it "launched". Installs itself as the shared one for its lifetime.
class FakeWorkspace : public QObject, public Workspace
{
public:
    FakeWorkspace() { Workspace::setShared(this); }
    ~FakeWorkspace() override { Workspace::setShared(nullptr); }

    RunningApplication *launchApplicationAtURL(const QUrl &url, LaunchOptions options, QString *) override
    {
        launches.append(url);
        launchOptions.append(options);
        auto *app = new RunningApplication(launchedIdentifier, 40000 + pid_t(launches.size()), this);
        running.append(app);
        return app;
    }
    QList<RunningApplication *> runningApplicationsWithBundleIdentifier(const QString &bundleIdentifier) override
    {
        QList<RunningApplication *> result;
        for (RunningApplication *app : std::as_const(running)) {
            if (app->bundleIdentifier() == bundleIdentifier && !app->isTerminated())
                result.append(app);
        }
        return result;
    }
    bool openURL(const QUrl &url) override
    {
        openedURLs.append(url);
        return true;
    }

    // The identifier a launch registers as running (one fake application per launch).
    QString launchedIdentifier = HelperIdentity::bundleIdentifier();
    QList<QUrl> launches;
    QList<Workspace::LaunchOptions> launchOptions;
    QList<QUrl> openedURLs;
    QList<RunningApplication *> running;
};
