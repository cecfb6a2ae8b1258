#include "helper/HelperBus.h"

#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>

#include <unistd.h>

namespace {

const char *const kHeard[] = {Notifications::Version,
                              Notifications::HelperShouldQuit,
                              Notifications::Active,
                              Notifications::Visible,
                              Notifications::HelperEnableUpdates,
                              Notifications::HelperDisableUpdates,
                              Notifications::HelperShouldKeepAlive,
                              Notifications::FoldersChanged,
                              Notifications::HelperShouldCheckForUpdates,
                              Notifications::Folders};

} // namespace

HelperBus::HelperBus(QObject *parent)
    : QObject(parent)
{
}

bool HelperBus::start(QString *why)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        *why = QStringLiteral("no D-Bus session bus (%1); exiting").arg(bus.lastError().message());
        return false;
    }
    auto *center = DistributedNotificationCenter::defaultCenter();
    for (const char *name : kHeard)
        center->addObserver(this, QLatin1String(name),
                            [this](const DistributedNotification &n) { Q_EMIT received(n); });

    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        bus.interface()->registerService(HelperIdentity::busName(), QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        *why = QStringLiteral("another helper owns %1; pid %2 exiting").arg(HelperIdentity::busName()).arg(::getpid());
        return false;
    }
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"), QStringLiteral("org.freedesktop.DBus.Local"),
                QStringLiteral("Disconnected"), this, SLOT(busDisconnected()));
    return true;
}

void HelperBus::busDisconnected()
{
    Q_EMIT disconnected();
}
