#include "HelperProcess.h"

#include "TestEnvironment.h"
#include "TestFiles.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QTest>

#include <sys/stat.h>

QStringList HelperProcess::asUser()
{
    return {QStringLiteral("--reuid=%1").arg(kUser), QStringLiteral("--regid=%1").arg(kUser),
            QStringLiteral("--clear-groups")};
}

HelperProcess::HelperProcess(const TestEnvironment &env)
    : m_env(env)
{
    m_process.setProcessChannelMode(QProcess::ForwardedChannels);
}

HelperProcess::~HelperProcess()
{
    stop();
}

bool HelperProcess::start(bool asUser, const QStringList &wrapper)
{
    QStringList command = wrapper + QStringList{TestEnvironment::helperExecutable()};
    if (asUser) {
        // The user's own home, store and log; root, who reads them here, may read anything.
        QFile::setPermissions(m_env.root(), QFileDevice::Permissions(0x7755));
        TestFiles::chown(m_env.home(), kUser);
        TestFiles::chown(m_env.root() + QStringLiteral("/runtime"), kUser);
        command = QStringList{QStringLiteral("setpriv")} + HelperProcess::asUser() + command;
    }
    m_process.start(command.takeFirst(), command);
    return m_process.waitForStarted()
        && QTest::qWaitFor(
               [] { return QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName()); },
               10000);
}

bool HelperProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return true;
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
    if (m_process.waitForFinished(15000))
        return true;
    kill();
    return false;
}

void HelperProcess::kill()
{
    m_process.kill();
    m_process.waitForFinished();
}

QByteArray HelperProcess::log() const
{
    return TestEnvironment::readFile(m_env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log"));
}

QList<QByteArray> HelperProcess::watches() const
{
    QList<QByteArray> inodes;
    const QString fdinfo = QStringLiteral("/proc/%1/fdinfo").arg(pid());
    for (const QString &fd : QDir(fdinfo).entryList(QDir::Files)) {
        for (const QByteArray &line : TestEnvironment::readFile(fdinfo + u'/' + fd).split('\n')) {
            if (line.startsWith("inotify wd:"))
                inodes.append(line.mid(line.indexOf(" ino:") + 5).split(' ').value(0));
        }
    }
    return inodes;
}

bool HelperProcess::isWatching(const QString &folder) const
{
    struct stat st { };
    ::stat(QFile::encodeName(folder).constData(), &st);
    return watches().contains(QByteArray::number(quint64(st.st_ino), 16));
}
