#pragma once

#include <QObject>
#include <QString>

#include <sys/types.h>

#include "platform/VantorPlatformExport.h"

// A running application as the workspace reports it. "terminated" is an observable
// property: it turns true once, when the process has ended, and never back.
class VANTOR_PLATFORM_EXPORT RunningApplication : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool terminated READ isTerminated NOTIFY terminatedChanged)
public:
    RunningApplication(const QString &bundleIdentifier, pid_t pid, QObject *parent = nullptr);

    QString bundleIdentifier() const { return m_bundleIdentifier; }
    pid_t processIdentifier() const { return m_pid; }
    bool isTerminated() const { return m_terminated; }

    // What the log shows for it; "(null)" for none.
    static QString description(const RunningApplication *app);

    // Called by the workspace that watches the process.
    void markTerminated();

Q_SIGNALS:
    void terminatedChanged();

private:
    QString m_bundleIdentifier;
    pid_t m_pid;
    bool m_terminated = false;
};
