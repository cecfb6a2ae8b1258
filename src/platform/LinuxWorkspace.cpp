#include "platform/LinuxWorkspace.h"
#include "platform/PlatformLog.h"

#include "platform/PropertyList.h"
#include "platform/RunningApplication.h"
#include "platform/Task.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDBusServiceWatcher>
#include <QDir>

LinuxWorkspace::LinuxWorkspace() = default;

RunningApplication *LinuxWorkspace::launchApplicationAtURL(const QUrl &url, LaunchOptions, QString *error)
{
    // Launches are always asynchronous here: the call returns once the process exists.
    auto fail = [error](const QString &message) -> RunningApplication * {
        if (error)
            *error = message;
        return nullptr;
    };
    if (!url.isLocalFile())
        return fail(QStringLiteral("%1 is not a file URL").arg(url.toString()));
    // A directory URL ends in '/': cleaned, so the executable's path has no doubled slash.
    const QString path = QDir::cleanPath(url.toLocalFile());
    const std::optional<QVariant> info = PropertyList::readFile(path + QStringLiteral("/Contents/Info.plist"));
    if (!info || info->typeId() != QMetaType::QVariantMap)
        return fail(QStringLiteral("%1 has no readable Contents/Info.plist").arg(path));
    const QVariantMap map = info->toMap();
    const QString executable = map.value(QStringLiteral("CFBundleExecutable")).toString();
    const QString identifier = map.value(QStringLiteral("CFBundleIdentifier")).toString();
    if (executable.isEmpty() || executable.contains(u'/') || executable == QLatin1String("..")
        || executable == QLatin1String("."))
        return fail(QStringLiteral("%1 names no usable CFBundleExecutable").arg(path));

    if (!identifier.isEmpty()) {
        if (const QList<RunningApplication *> running = runningApplicationsWithBundleIdentifier(identifier);
            !running.isEmpty())
            return running.first();
    }

    QString spawnError;
    // An application keeps no hold on its starter's output: a helper started by a host whose
    // output is a pipe would keep that pipe open for as long as it runs.
    Task *task = Task::launchedTaskWithLaunchPath(path + QStringLiteral("/Contents/MacOS/") + executable, {},
                                                  &spawnError, false, {}, Task::DiscardOutput);
    if (!task)
        return fail(spawnError);
    RunningApplication *app = track(identifier, task->processIdentifier(), {});
    connect(task, &Task::terminated, app, &RunningApplication::markTerminated);
    return app;
}

QList<RunningApplication *> LinuxWorkspace::runningApplicationsWithBundleIdentifier(const QString &bundleIdentifier)
{
    QList<RunningApplication *> result;
    // Our own children count from the moment they exist, before they have taken their name.
    for (RunningApplication *app : std::as_const(m_applications)) {
        if (app->bundleIdentifier() == bundleIdentifier && !app->isTerminated())
            result.append(app);
    }

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        warnNoBusOnce();
        return result;
    }
    QDBusConnectionInterface *iface = bus.interface();
    if (!iface->isServiceRegistered(bundleIdentifier).value())
        return result;
    const QDBusReply<uint> pid = iface->servicePid(bundleIdentifier);
    const QDBusReply<QString> owner = iface->serviceOwner(bundleIdentifier);
    if (!pid.isValid() || !owner.isValid())
        return result;
    for (RunningApplication *app : std::as_const(result)) {
        if (app->processIdentifier() == pid_t(pid.value()))
            return result;
    }
    result.prepend(track(bundleIdentifier, pid_t(pid.value()), owner.value()));
    return result;
}

bool LinuxWorkspace::openURL(const QUrl &url)
{
    QString error;
    if (!Task::launchedTaskWithLaunchPath(QStringLiteral("xdg-open"), {url.toString(QUrl::FullyEncoded)}, &error,
                                          true)) {
        qCWarning(lcPlatform, "cannot open %s: %s", qPrintable(url.toString()), qPrintable(error));
        return false;
    }
    return true;
}

RunningApplication *LinuxWorkspace::track(const QString &bundleIdentifier, pid_t pid, const QString &busOwner)
{
    auto *app = new RunningApplication(bundleIdentifier, pid, this);
    m_applications.append(app);
    // Our own children end when their task is reaped; others when they leave the bus.
    if (!busOwner.isEmpty()) {
        m_busOwners.insert(app, busOwner);
        watchBusName(bundleIdentifier);
    }
    connect(app, &RunningApplication::terminatedChanged, this, [this, app] {
        m_applications.removeOne(app);
        m_busOwners.remove(app);
        app->deleteLater();
    });
    return app;
}

void LinuxWorkspace::watchBusName(const QString &bundleIdentifier)
{
    if (!m_watcher) {
        m_watcher = new QDBusServiceWatcher(this);
        m_watcher->setConnection(QDBusConnection::sessionBus());
        m_watcher->setWatchMode(QDBusServiceWatcher::WatchForOwnerChange);
        connect(m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &LinuxWorkspace::onOwnerChanged);
    }
    if (!m_watcher->watchedServices().contains(bundleIdentifier))
        m_watcher->addWatchedService(bundleIdentifier);
}

void LinuxWorkspace::onOwnerChanged(const QString &name, const QString &oldOwner, const QString &)
{
    if (oldOwner.isEmpty())
        return;
    // Collected first: marking one removes it from the list.
    QList<RunningApplication *> ended;
    for (auto it = m_busOwners.cbegin(); it != m_busOwners.cend(); ++it) {
        if (it.key()->bundleIdentifier() == name && it.value() == oldOwner)
            ended.append(it.key());
    }
    for (RunningApplication *app : ended)
        app->markTerminated();
}

void LinuxWorkspace::warnNoBusOnce()
{
    if (m_warned)
        return;
    m_warned = true;
    qCWarning(lcPlatform, "no D-Bus session bus; running applications cannot be found");
}
