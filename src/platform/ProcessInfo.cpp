#include "platform/ProcessInfo.h"
#include "platform/PlatformLog.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = {-1, -1};

void onTerminationSignal(int sig)
{
    const int saved = errno;
    const char byte = char(sig);
    [[maybe_unused]] ssize_t n = ::write(g_signalPipe[1], &byte, 1);
    errno = saved;
}

} // namespace

ProcessInfo::ProcessInfo() = default;

ProcessInfo *ProcessInfo::processInfo()
{
    // Lives until the process ends, as the platform's shared object does.
    static ProcessInfo *instance = new ProcessInfo;
    return instance;
}

int ProcessInfo::processIdentifier() const
{
    return int(::getpid());
}

QString ProcessInfo::executablePath() const
{
    return QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
}

QByteArray ProcessInfo::argumentsData() const
{
    // procfs reports no size, so the file is read to its end.
    QFile cmdline(QStringLiteral("/proc/self/cmdline"));
    return cmdline.open(QIODevice::ReadOnly) ? cmdline.readAll() : QByteArray();
}

void ProcessInfo::ignoreBrokenPipes()
{
    std::signal(SIGPIPE, SIG_IGN);
}

void ProcessInfo::disableSuddenTermination()
{
    ++m_disableCount;
}

void ProcessInfo::enableSuddenTermination()
{
    if (m_disableCount > 0)
        --m_disableCount;
    if (m_disableCount == 0 && m_terminationPending)
        terminateNow();
}

void ProcessInfo::installTerminationHandler()
{
    if (m_notifier || !QCoreApplication::instance())
        return;
    if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        qCWarning(lcPlatform, "cannot create the signal pipe; SIGTERM will end the process at once");
        return;
    }
    m_notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &ProcessInfo::onSignalReadable);

    struct sigaction sa = {};
    sa.sa_handler = onTerminationSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);
}

void ProcessInfo::onSignalReadable()
{
    char buf[64];
    int last = 0;
    ssize_t n;
    while ((n = ::read(g_signalPipe[0], buf, sizeof buf)) > 0)
        last = buf[n - 1];
    if (last == 0)
        return;
    Q_EMIT terminationRequested(last);
    m_terminationPending = true;
    if (m_disableCount == 0)
        terminateNow();
}

void ProcessInfo::terminateNow()
{
    m_terminationPending = false;
    if (auto *app = QCoreApplication::instance())
        app->quit();
}
