#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

class TestEnvironment;

// The real helper, started for a test in the test's private home and session bus: as root,
// as an ordinary user who then owns that home, or under a wrapper command (a user namespace
// with its own limits). Told to quit, as the pane does, when the object goes.
class HelperProcess
{
public:
    // The ordinary user of the "ordinary user" rows.
    static constexpr uid_t kUser = 65534;
    static QStringList asUser();

    explicit HelperProcess(const TestEnvironment &env);
    ~HelperProcess();

    // True once the helper owns its bus name.
    bool start(bool asUser = false, const QStringList &wrapper = {});
    // False when it had to be killed.
    bool stop();
    void kill();
    bool isRunning() const { return m_process.state() == QProcess::Running; }
    qint64 pid() const { return m_process.processId(); }
    QByteArray log() const;
    // The inotify watches the process holds, as the kernel lists them: one "ino:" per inode.
    QList<QByteArray> watches() const;
    bool isWatching(const QString &folder) const;

private:
    const TestEnvironment &m_env;
    QProcess m_process;
};
