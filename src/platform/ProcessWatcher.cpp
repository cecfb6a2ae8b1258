#include "platform/ProcessWatcher.h"
#include "platform/PlatformLog.h"

#include "platform/DetachedSpawn.h"

#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

ProcessWatcher::ProcessWatcher(pid_t pid, QObject *parent)
    : QObject(parent)
    , m_pid(pid)
{
    m_pidfd = DetachedSpawn::pidfdOpen(pid);
    if (m_pidfd >= 0) {
        m_notifier = new QSocketNotifier(m_pidfd, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &ProcessWatcher::check);
        return;
    }
    // Kernels without pidfd (before 5.3): look once a second.
    qCWarning(lcPlatform, "cannot watch process %d with a pidfd (%s); polling instead", int(pid), strerror(errno));
    m_poll = new QTimer(this);
    connect(m_poll, &QTimer::timeout, this, &ProcessWatcher::check);
    m_poll->start(1000);
}

ProcessWatcher::~ProcessWatcher()
{
    if (m_pidfd >= 0)
        ::close(m_pidfd);
}

void ProcessWatcher::check()
{
    if (m_finished)
        return;
    int status = 0;
    const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
    if (r == 0 || (r < 0 && errno != ECHILD))
        return;
    m_finished = true;
    if (m_notifier)
        m_notifier->setEnabled(false);
    if (m_poll)
        m_poll->stop();
    Q_EMIT finished();
}
