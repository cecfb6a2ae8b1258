#pragma once

#include "common/HelperIdentity.h"
#include "platform/RunningApplication.h"
#include "platform/Workspace.h"

#include <QObject>

// A workspace that starts nothing: it records launches and reports as running whatever the
// test says, or the helper it "launched". Installs itself as the shared one for its lifetime.
class FakeWorkspace : public QObject, public Workspace
{
public:
    FakeWorkspace() { Workspace::setShared(this); }
    ~FakeWorkspace() override { Workspace::setShared(nullptr); }

    RunningApplication *launchApplicationAtURL(const QUrl &url, LaunchOptions, QString *) override
    {
        launches.append(url);
        auto *app = new RunningApplication(HelperIdentity::bundleIdentifier(), 40000 + pid_t(launches.size()), this);
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

    QList<QUrl> launches;
    QList<QUrl> openedURLs;
    QList<RunningApplication *> running;
};
