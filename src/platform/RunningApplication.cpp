#include "platform/RunningApplication.h"

RunningApplication::RunningApplication(const QString &bundleIdentifier, pid_t pid, QObject *parent)
    : QObject(parent)
    , m_bundleIdentifier(bundleIdentifier)
    , m_pid(pid)
{
}

QString RunningApplication::description(const RunningApplication *app)
{
    if (!app)
        return QStringLiteral("(null)");
    return QStringLiteral("<RunningApplication %1, pid %2%3>")
        .arg(app->m_bundleIdentifier)
        .arg(app->m_pid)
        .arg(app->m_terminated ? QStringLiteral(", terminated") : QString());
}

void RunningApplication::markTerminated()
{
    if (m_terminated)
        return;
    m_terminated = true;
    Q_EMIT terminatedChanged();
}
