#pragma once

#include "platform/Workspace.h"

#include <QHash>
#include <QObject>

class QDBusServiceWatcher;

// The workspace on a freedesktop session: bus names for "running", posix_spawn for launching,
// xdg-open for URLs.
class LinuxWorkspace : public QObject, public Workspace
{
    Q_OBJECT
public:
    LinuxWorkspace();

    RunningApplication *launchApplicationAtURL(const QUrl &url, LaunchOptions options, QString *error) override;
    QList<RunningApplication *> runningApplicationsWithBundleIdentifier(const QString &bundleIdentifier) override;
    bool openURL(const QUrl &url) override;

private:
    RunningApplication *track(const QString &bundleIdentifier, pid_t pid, const QString &busOwner);
    void watchBusName(const QString &bundleIdentifier);
    void onOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void warnNoBusOnce();

    QList<RunningApplication *> m_applications;
    QHash<RunningApplication *, QString> m_busOwners;
    QDBusServiceWatcher *m_watcher = nullptr;
    bool m_warned = false;
};
