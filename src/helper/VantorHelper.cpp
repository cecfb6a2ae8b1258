#include "helper/VantorHelper.h"

#include "helper/CompressionEngine.h"
#include "helper/DesktopNotifier.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/FileManager.h"
#include "helper/FolderRequests.h"
#include "helper/FolderWatch.h"
#include "helper/HelperBus.h"
#include "helper/HelperLog.h"
#include "helper/HelperStatus.h"
#include "helper/PowerMonitor.h"
#include "helper/SavingsModel.h"
#include "helper/TrayIcon.h"
#include "common/Notifications.h"
#include "platform/PropertyList.h"
#include "common/VTDefaultsController.h"

#include <QApplication>
#include <QCoreApplication>
#include <QFileInfo>

#include <unistd.h>

namespace {

// The notifications that make the helper read its settings again.
const char *const kRereadDefaults[] = {Notifications::Active, Notifications::Visible,
                                       Notifications::HelperEnableUpdates, Notifications::HelperDisableUpdates};

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

} // namespace

VantorHelper::VantorHelper(const QString &version, QObject *parent)
    : QObject(parent)
    , m_version(version)
    , m_bus(std::make_unique<HelperBus>())
{
}

VantorHelper::~VantorHelper()
{
    m_trayIcon.reset();
    m_status.reset();
    m_folderRequests.reset();
    m_engine.reset();
    m_savings.reset();
}

QString VantorHelper::defaultsPath()
{
    // Worked out, not made: the helper never creates the pane's product folder.
    const QStringList dirs = FileManager::applicationSupportDirectories();
    if (dirs.isEmpty())
        return {};
    return dirs.first() + QStringLiteral("/Vantor/") + QLatin1String(VTDefaultsController::kFileName);
}

bool VantorHelper::start()
{
    QString why;
    connect(m_bus.get(), &HelperBus::received, this, &VantorHelper::received);
    if (!m_bus->start(&why)) {
        qCInfo(lcHelper, "%s", qPrintable(why));
        return false;
    }
    connect(m_bus.get(), &HelperBus::disconnected, this, [] {
        qCInfo(lcHelper, "the session bus has gone; quitting");
        QCoreApplication::quit();
    });
    qCInfo(lcHelper, "started, version %s, pid %d; %s", qPrintable(m_version), int(::getpid()),
           qPrintable(readDefaults()));

    m_notifier = std::make_unique<DesktopNotifier>();
    m_savings = std::make_unique<SavingsModel>();
    m_watch = std::make_unique<FolderWatch>();
    m_engine = std::make_unique<CompressionEngine>(m_savings.get(), m_notifier.get(), m_watch.get());
    m_folderRequests = std::make_unique<FolderRequests>(m_savings.get(), m_engine.get());
    m_power = std::make_unique<PowerMonitor>();
    connect(m_power.get(), &PowerMonitor::changed, this,
            [this] { m_engine->setPower(m_power->onBattery(), m_power->powerSaver()); });
    m_power->start(); // what it finds is told through changed()
    m_engine->setSwitchedOn(setting(VTDefaultsController::kActiveKey));
    m_engine->resume();
    m_status = std::make_unique<HelperStatus>(m_engine.get());
    m_status->publish();
    // A tray needs a display; without one the helper still does its work.
    if (qobject_cast<QApplication *>(QCoreApplication::instance())) {
        m_trayIcon = std::make_unique<TrayIcon>();
        connect(m_savings.get(), &SavingsModel::totalSavingsChanged, m_trayIcon.get(), &TrayIcon::setTotalSavings);
        m_trayIcon->setTotalSavings(m_savings->totalSavings());
        const auto showActivity = [this] {
            const CompressionEngine::Status status = m_engine->status();
            m_trayIcon->setActivity(
                status.activity == CompressionEngine::Activity::Idle ? QString() : CompressionEngine::describe(status));
        };
        connect(m_engine.get(), &CompressionEngine::statusChanged, m_trayIcon.get(), showActivity);
        showActivity();
        m_trayIcon->setVisible(setting(VTDefaultsController::kVisibleKey));
    }
    return true;
}

void VantorHelper::received(const DistributedNotification &notification)
{
    const QString &name = notification.name;
    QString line = name + describe(notification.userInfo);
    if (name == QLatin1String(Notifications::HelperShouldQuit)) {
        qCInfo(lcHelper, "%s: quitting", qPrintable(line));
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
        m_engine->setSwitchedOn(setting(VTDefaultsController::kActiveKey));
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
    qCInfo(lcHelper, "%s", qPrintable(line));
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
