#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <sys/types.h>

#include "platform/VantorPlatformExport.h"

class ProcessWatcher;

// A program started as a child process, detached into a session of its own (no shell). The
// task owns itself: it reaps the child when it ends, says so, and then deletes itself.
class VANTOR_PLATFORM_EXPORT Task : public QObject
{
    Q_OBJECT
public:
    enum Output {
        InheritOutput, // a tool: its messages go where ours go
        DiscardOutput, // an application: standard output and error on /dev/null
    };

    // Null with *error set when the program cannot be started. With searchPath a bare name
    // is looked up in $PATH. extraEnvironment ("NAME=value" entries) is added to this
    // process's environment for the child only. Standard input is always /dev/null.
    static Task *launchedTaskWithLaunchPath(const QString &launchPath, const QStringList &arguments,
                                            QString *error = nullptr, bool searchPath = false,
                                            const QList<QByteArray> &extraEnvironment = {},
                                            Output output = InheritOutput);

    pid_t processIdentifier() const { return m_pid; }

Q_SIGNALS:
    void terminated();

private:
    explicit Task(pid_t pid);

    pid_t m_pid;
    ProcessWatcher *m_watcher;
};
