#pragma once

#include "platform/Workspace.h"
#include "common/HelperIdentity.h"

#include <QObject>
#include <QSet>

class RunningApplication;

// A workspace that starts nothing: it records launches and reports as running whatever the
// test says, or what it "launched".
class FakeWorkspace : public QObject, public Workspace
{
    Q_OBJECT
public:
    FakeWorkspace();
    ~FakeWorkspace() override;

    RunningApplication *launchApplicationAtURL(const QUrl &url, LaunchOptions options, QString *error) override;
    QList<RunningApplication *> runningApplicationsWithBundleIdentifier(const QString &bundleIdentifier) override;
    bool openURL(const QUrl &url) override;

    // The identifier a launch registers as running (one fake application per launch).
    QString launchedIdentifier = HelperIdentity::bundleIdentifier();
    QList<QUrl> launches;
    QList<Workspace::LaunchOptions> launchOptions;
    QList<QUrl> openedURLs;
    QList<RunningApplication *> running;
};
