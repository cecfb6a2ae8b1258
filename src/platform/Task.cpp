#include "platform/Task.h"

#include "platform/DetachedSpawn.h"
#include "platform/ProcessWatcher.h"

#include <QCoreApplication>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <vector>

extern char **environ;

// Owned by the application until the child ends, so a child that outlives us (the relaunch
// tool waits for our end) leaves nothing behind.
Task::Task(pid_t pid)
    : QObject(QCoreApplication::instance())
    , m_pid(pid)
    , m_watcher(new ProcessWatcher(pid, this))
{
    connect(m_watcher, &ProcessWatcher::finished, this, [this] {
        Q_EMIT terminated();
        deleteLater();
    });
}

Task *Task::launchedTaskWithLaunchPath(const QString &launchPath, const QStringList &arguments, QString *error,
                                       bool searchPath, const QList<QByteArray> &extraEnvironment, Output output)
{
    QList<QByteArray> args{QFile::encodeName(launchPath)};
    for (const QString &a : arguments)
        args.append(QFile::encodeName(a));
    std::vector<char *> argv;
    for (QByteArray &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<char *> envp;
    QList<QByteArray> extra = extraEnvironment;
    if (!extra.isEmpty()) {
        for (char **e = environ; *e; ++e)
            envp.push_back(*e);
        for (QByteArray &e : extra)
            envp.push_back(e.data());
        envp.push_back(nullptr);
    }
    const pid_t pid = DetachedSpawn::spawn(argv[0], argv.data(), extra.isEmpty() ? environ : envp.data(), searchPath,
                                           output == DiscardOutput);
    if (pid < 0) {
        if (error)
            *error =
                QStringLiteral("cannot start %1: %2").arg(launchPath, QString::fromLocal8Bit(std::strerror(errno)));
        return nullptr;
    }
    return new Task(pid);
}
