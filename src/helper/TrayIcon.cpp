#include "helper/TrayIcon.h"

#include "platform/DistributedNotificationCenter.h"
#include "common/Notifications.h"
#include "common/VTUtil.h"
#include "helper/HelperLog.h"

#include <QIcon>
#include <QMenu>
#include <QProcess>
#include <QStandardPaths>
#include <QSystemTrayIcon>

TrayIcon::TrayIcon(QObject *parent)
    : QObject(parent)
    , m_icon(new QSystemTrayIcon(
          QIcon::fromTheme(QStringLiteral("vantor"), QIcon::fromTheme(QStringLiteral("drive-harddisk"))), this))
    , m_menu(new QMenu)
{
    m_menu->addAction(QStringLiteral("Open Vantor settings"), this, &TrayIcon::openSettings);
    m_icon->setContextMenu(m_menu);
    connect(m_icon, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger)
            openSettings();
    });
    setTotalSavings(0);
}

TrayIcon::~TrayIcon()
{
    delete m_menu; // a menu has no parent object
}

void TrayIcon::setVisible(bool visible)
{
    m_icon->setVisible(visible && QSystemTrayIcon::isSystemTrayAvailable());
}

bool TrayIcon::isShown() const
{
    return m_icon->isVisible();
}

void TrayIcon::setTotalSavings(quint64 total)
{
    m_total = total;
    updateToolTip();
}

void TrayIcon::setActivity(const QString &words)
{
    m_activity = words;
    updateToolTip();
}

void TrayIcon::updateToolTip()
{
    const QString saved = QStringLiteral("Vantor: %1 saved").arg(VTUtil::getPrettySize(m_total));
    m_icon->setToolTip(m_activity.isEmpty() ? saved : saved + QStringLiteral("; ") + m_activity);
}

void TrayIcon::openSettings()
{
    const QString host = QStandardPaths::findExecutable(QLatin1String(kHostExecutable));
    if (host.isEmpty() || !QProcess::startDetached(host, {}))
        qCWarning(lcHelper, "cannot start %s to open the settings", kHostExecutable);
    // A pane already open comes to its history tab.
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::ShowHistory));
}
