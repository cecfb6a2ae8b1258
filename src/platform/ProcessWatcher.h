#pragma once

#include <QObject>

#include <sys/types.h>

#include "platform/VantorPlatformExport.h"

class QSocketNotifier;
class QTimer;

// Tells when a child process ends, without a busy loop and without SIGCHLD (a pidfd read by
// the event loop), and reaps it, so an ended child never lingers as a zombie that still
// looks alive.
class VANTOR_PLATFORM_EXPORT ProcessWatcher : public QObject
{
    Q_OBJECT
public:
    explicit ProcessWatcher(pid_t pid, QObject *parent = nullptr);
    ~ProcessWatcher() override;

    pid_t pid() const { return m_pid; }
    bool hasFinished() const { return m_finished; }

Q_SIGNALS:
    void finished();

private:
    void check();

    pid_t m_pid;
    bool m_finished = false;
    int m_pidfd = -1;
    QSocketNotifier *m_notifier = nullptr;
    QTimer *m_poll = nullptr;
};
