#include "NotificationRecorder.h"

#include "platform/DistributedNotificationCenter.h"

#include <QDBusMessage>
#include <QSignalSpy>
#include <QTest>
#include <QUuid>

NotificationRecorder::NotificationRecorder(QObject *parent)
    : QObject(parent)
    , m_connectionName(QStringLiteral("recorder-") + QUuid::createUuid().toString(QUuid::WithoutBraces))
{
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, m_connectionName);
    bus.connect(QString(), QLatin1String(DistributedNotificationCenter::kPath),
                QLatin1String(DistributedNotificationCenter::kInterface),
                QLatin1String(DistributedNotificationCenter::kMember), this, SLOT(onPost(QString, QVariantMap)));
}

NotificationRecorder::~NotificationRecorder()
{
    QDBusConnection::disconnectFromBus(m_connectionName);
}

void NotificationRecorder::clear()
{
    m_names.clear();
    m_userInfos.clear();
}

bool NotificationRecorder::waitFor(const QString &name, int timeoutMs)
{
    return QTest::qWaitFor([&] { return m_names.contains(name); }, timeoutMs);
}

void NotificationRecorder::settle(int ms)
{
    // A round trip to the bus daemon, so anything sent before now has been routed.
    QDBusConnection::sessionBus().call(
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                                       QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
    QTest::qWait(ms);
}

void NotificationRecorder::onPost(const QString &name, const QVariantMap &userInfo)
{
    m_names.append(name);
    m_userInfos.append(userInfo);
}
