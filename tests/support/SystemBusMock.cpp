#include "SystemBusMock.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QTest>

namespace {
const QString kConnection = QStringLiteral("vantor-test-system-bus");
}

SystemBusMock::~SystemBusMock()
{
    QDBusConnection::disconnectFromBus(kConnection);
    for (int i = 2; i >= 0; --i) {
        m_processes[i].kill();
        m_processes[i].waitForFinished();
    }
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_previous);
}

bool SystemBusMock::start(bool upower)
{
    QProcess &bus = m_processes[0];
    bus.start(QStringLiteral("dbus-daemon"),
              {QStringLiteral("--config-file=" VANTOR_ANY_USER_BUS_CONF), QStringLiteral("--nofork"),
               QStringLiteral("--print-address=1")});
    if (!bus.waitForReadyRead(10000))
        return false;
    const QByteArray address = bus.readLine().trimmed();
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", address);
    QDBusConnection connection = QDBusConnection::connectToBus(QString::fromLatin1(address), kConnection);
    const QStringList templates{QStringLiteral("power_profiles_daemon"), QStringLiteral("upower")};
    const QStringList services{QStringLiteral("net.hadess.PowerProfiles"), QStringLiteral("org.freedesktop.UPower")};
    for (int i = 0; i < (upower ? 2 : 1); ++i) {
        // Debian's python3 has dbusmock; the one first on PATH may not.
        m_processes[i + 1].setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_processes[i + 1].start(QStringLiteral("/usr/bin/python3"),
                                 {QStringLiteral("-m"), QStringLiteral("dbusmock"), QStringLiteral("--system"),
                                  QStringLiteral("-t"), templates[i]});
        if (!QTest::qWaitFor([&] { return connection.interface()->isServiceRegistered(services[i]); }, 10000))
            return false;
    }
    return true;
}

bool SystemBusMock::setOnBattery(bool onBattery)
{
    return set(QStringLiteral("org.freedesktop.UPower"), QStringLiteral("OnBattery"), onBattery);
}

bool SystemBusMock::setProfile(const QString &profile)
{
    return set(QStringLiteral("net.hadess.PowerProfiles"), QStringLiteral("ActiveProfile"), profile);
}

bool SystemBusMock::set(const QString &service, const QString &property, const QVariant &value)
{
    // Each service's object and interface are named as the service.
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, u'/' + QString(service).replace(u'.', u'/'),
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"));
    call << service << property << QVariant::fromValue(QDBusVariant(value));
    return QDBusConnection(kConnection).call(call).type() == QDBusMessage::ReplyMessage;
}
