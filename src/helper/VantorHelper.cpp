#include "helper/VantorHelper.h"

#include "helper/CompressionEngine.h"
#include "helper/DesktopNotifier.h"
#include "platform/DistributedNotificationCenter.h"
#include "helper/FolderRequests.h"
#include "helper/SavingsModel.h"
#include "helper/TrayIcon.h"
#include "platform/FileManager.h"
#include "common/Notifications.h"
#include "platform/PropertyList.h"
#include "common/VTDefaultsController.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The notifications the helper acts on, and the ones it only records.
const char *const kRereadDefaults[] = {Notifications::Active, Notifications::Visible,
                                       Notifications::HelperEnableUpdates, Notifications::HelperDisableUpdates};
const char *const kRecordOnly[] = {Notifications::HelperShouldKeepAlive, Notifications::FoldersChanged};
const char *const kActedOn[] = {Notifications::HelperShouldCheckForUpdates, Notifications::Folders};

QString describe(const QVariantMap &userInfo)
{
    if (userInfo.isEmpty())
        return {};
    QStringList parts;
    for (auto it = userInfo.cbegin(); it != userInfo.cend(); ++it) {
        const QVariant &v = it.value();
        parts.append(it.key() + u'='
                     + (v.typeId() == QMetaType::QVariantList ? v.toStringList().join(u',') : v.toString()));
    }
    return QStringLiteral(" {%1}").arg(parts.join(QStringLiteral(", ")));
}

// Folder names may hold line breaks and other control characters: written as C escapes
// (and the backslash doubled), each entry stays one line and no name can forge another.
QByteArray escaped(const QByteArray &text)
{
    QByteArray out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c == '\r')
            out += "\\r";
        else if (u < 0x20 || u == 0x7f)
            out += "\\x" + QByteArray::number(u, 16).rightJustified(2, '0');
        else
            out += c;
    }
    return out;
}

// One write per line, appended, so lines from two helpers (or two threads) never interleave.
void writeLogLine(int fd, const QByteArray &line)
{
    const QByteArray text = QDateTime::currentDateTime().toString(Qt::ISODateWithMs).toUtf8() + ' '
        + QByteArray::number(::getpid()) + ' ' + escaped(line) + '\n';
    [[maybe_unused]] const ssize_t n = ::write(fd, text.constData(), size_t(text.size()));
}

// The log file's descriptor while a helper has it open, for the message handler.
std::atomic<int> g_logFd{-1};
QtMessageHandler g_previousHandler = nullptr;

// Warnings come from every part of the helper and from its worker thread; a helper started
// by the pane may have no standard error anyone reads, so they go to the log as well.
void logMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (g_previousHandler)
        g_previousHandler(type, context, message);
    const int fd = g_logFd.load();
    if (fd < 0 || type == QtDebugMsg)
        return;
    QByteArray line = message.toUtf8();
    if (line.startsWith("VantorHelper: "))
        line.remove(0, 14);
    writeLogLine(fd, line);
}

} // namespace

VantorHelper::VantorHelper(const QString &version, QObject *parent)
    : QObject(parent)
    , m_version(version)
{
    const QString path = logPath();
    if (!path.isEmpty()) {
        const QString dir = QFileInfo(path).absolutePath();
        QDir().mkpath(dir);
        ::chmod(QFile::encodeName(dir).constData(), 0700);
        m_logFd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    }
    if (m_logFd < 0) {
        std::fprintf(stderr, "VantorHelper: cannot open the log file %s; logging to standard error\n",
                     path.isEmpty() ? "(no state folder)" : qPrintable(path));
        return;
    }
    g_logFd = m_logFd;
    g_previousHandler = qInstallMessageHandler(logMessage);
}

VantorHelper::~VantorHelper()
{
    m_trayIcon.reset();
    m_folderRequests.reset();
    m_engine.reset();
    m_savings.reset();
    if (m_logFd >= 0) {
        qInstallMessageHandler(g_previousHandler);
        g_logFd = -1;
        ::close(m_logFd);
    }
}

QString VantorHelper::defaultsPath()
{
    // Worked out, not made: the helper never creates the pane's product folder.
    const QStringList dirs = FileManager::applicationSupportDirectories();
    if (dirs.isEmpty())
        return {};
    return dirs.first() + QStringLiteral("/Vantor/") + QLatin1String(VTDefaultsController::kFileName);
}

QString VantorHelper::logPath()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (!QDir::isAbsolutePath(state)) {
        const QString home = qEnvironmentVariable("HOME");
        if (!QDir::isAbsolutePath(home))
            return {};
        state = home + QStringLiteral("/.local/state");
    }
    return QDir::cleanPath(state) + QStringLiteral("/vantor/VantorHelper.log");
}

bool VantorHelper::start()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        log(QStringLiteral("no D-Bus session bus (%1); exiting").arg(bus.lastError().message()));
        return false;
    }

    // Subscribed before the name is taken: whoever sees the name may post at once.
    auto *center = DistributedNotificationCenter::defaultCenter();
    auto handler = [this](const DistributedNotification &n) { received(n); };
    center->addObserver(this, QLatin1String(Notifications::Version), handler);
    center->addObserver(this, QLatin1String(Notifications::HelperShouldQuit), handler);
    for (const char *name : kRereadDefaults)
        center->addObserver(this, QLatin1String(name), handler);
    for (const char *name : kRecordOnly)
        center->addObserver(this, QLatin1String(name), handler);
    for (const char *name : kActedOn)
        center->addObserver(this, QLatin1String(name), handler);

    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply = bus.interface()->registerService(
        QLatin1String(kBundleIdentifier), QDBusConnectionInterface::DontQueueService,
        QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        log(QStringLiteral("another helper owns %1; pid %2 exiting")
                .arg(QLatin1String(kBundleIdentifier))
                .arg(::getpid()));
        return false;
    }
    // A helper whose bus has gone can hear nothing more: it ends with its session.
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"), QStringLiteral("org.freedesktop.DBus.Local"),
                QStringLiteral("Disconnected"), this, SLOT(busDisconnected()));
    log(QStringLiteral("started, version %1, pid %2; %3").arg(m_version).arg(::getpid()).arg(readDefaults()));

    m_notifier = std::make_unique<DesktopNotifier>();
    m_savings = std::make_unique<SavingsModel>();
    m_engine = std::make_unique<CompressionEngine>(m_savings.get(), m_notifier.get());
    m_folderRequests = std::make_unique<FolderRequests>(m_savings.get(), m_engine.get());
    m_engine->setActive(setting(VTDefaultsController::kActiveKey));
    m_engine->resume();
    // A tray needs a display; without one the helper still does its work.
    if (qobject_cast<QApplication *>(QCoreApplication::instance())) {
        m_trayIcon = std::make_unique<TrayIcon>();
        connect(m_savings.get(), &SavingsModel::totalSavingsChanged, m_trayIcon.get(), &TrayIcon::setTotalSavings);
        m_trayIcon->setTotalSavings(m_savings->totalSavings());
        m_trayIcon->setVisible(setting(VTDefaultsController::kVisibleKey));
    }
    return true;
}

void VantorHelper::busDisconnected()
{
    log(QStringLiteral("the session bus has gone; quitting"));
    QCoreApplication::quit();
}

void VantorHelper::received(const DistributedNotification &notification)
{
    const QString &name = notification.name;
    QString line = name + describe(notification.userInfo);
    if (name == QLatin1String(Notifications::HelperShouldQuit)) {
        log(line + QStringLiteral(": quitting"));
        QCoreApplication::quit();
        return;
    }
    if (name == QLatin1String(Notifications::Version)) {
        const QString pane = notification.userInfo.value(QLatin1String(Notifications::VersionKey)).toString();
        line += pane == m_version ? QStringLiteral(": same version as this helper")
                                  : QStringLiteral(": this helper is version %1").arg(m_version);
    }
    for (const char *reread : kRereadDefaults) {
        if (name == QLatin1String(reread))
            line += QStringLiteral(": ") + readDefaults();
    }
    if (name == QLatin1String(Notifications::Active))
        m_engine->setActive(setting(VTDefaultsController::kActiveKey));
    if (name == QLatin1String(Notifications::Visible) && m_trayIcon) {
        m_trayIcon->setVisible(setting(VTDefaultsController::kVisibleKey));
        line += m_trayIcon->isShown() ? QStringLiteral("; tray icon shown") : QStringLiteral("; tray icon hidden");
    }
    if (name == QLatin1String(Notifications::Folders))
        line += QStringLiteral(": ") + m_folderRequests->handle(notification.userInfo);
    if (name == QLatin1String(Notifications::HelperShouldCheckForUpdates)) {
        // Installed from packages: the package manager brings updates, so nothing is fetched here.
        m_notifier->notify(QStringLiteral("Vantor updates"),
                           QStringLiteral("Vantor for Linux is updated by your package manager. "
                                          "Use your system's software updates to get a newer version; "
                                          "nothing was downloaded."));
        line += QStringLiteral(": answered with a desktop notification");
    }
    log(line);
}

QString VantorHelper::readDefaults()
{
    const QString path = defaultsPath();
    if (path.isEmpty())
        return QStringLiteral("no application-data folder; settings unchanged");
    if (!QFileInfo::exists(path))
        return QStringLiteral("%1 does not exist yet; settings unchanged").arg(path);
    const std::optional<QVariant> read = PropertyList::readFile(path);
    if (!read || read->typeId() != QMetaType::QVariantMap)
        return QStringLiteral("%1 is not a readable settings property list; settings unchanged").arg(path);
    m_defaults = read->toMap();
    auto flag = [this](const char *key) {
        return QStringLiteral("%1=%2").arg(QLatin1String(key),
                                           PropertyList::boolValue(m_defaults.value(QLatin1String(key)))
                                               ? QStringLiteral("true")
                                               : QStringLiteral("false"));
    };
    return QStringLiteral("settings %1 %2 %3")
        .arg(flag(VTDefaultsController::kActiveKey), flag(VTDefaultsController::kVisibleKey),
             flag(VTDefaultsController::kCheckUpdatesKey));
}

bool VantorHelper::setting(const char *key) const
{
    // A setting missing from the file has its built-in default, which is true for all of them.
    const QVariant value = m_defaults.value(QLatin1String(key));
    return !value.isValid() || PropertyList::boolValue(value);
}

void VantorHelper::log(const QString &line)
{
    writeLogLine(m_logFd >= 0 ? m_logFd : STDERR_FILENO, line.toUtf8());
}
