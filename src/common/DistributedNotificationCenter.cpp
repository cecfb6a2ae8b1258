#include "DistributedNotificationCenter.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QPointer>

namespace {

// Incoming a{sv} values arrive partly still marshalled; turn them into plain property-list values.
QVariant unmarshal(const QVariant &value, int depth = 0)
{
    if (depth > 64)
        return {};
    if (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>())
        return unmarshal(value.value<QDBusVariant>().variant(), depth + 1);
    if (value.userType() != qMetaTypeId<QDBusArgument>())
        return value;

    const auto arg = value.value<QDBusArgument>();
    switch (arg.currentType()) {
    case QDBusArgument::ArrayType: {
        if (arg.currentSignature() == QLatin1String("ay")) {
            QByteArray bytes;
            arg >> bytes;
            return bytes;
        }
        QVariantList list;
        arg.beginArray();
        while (!arg.atEnd())
            list.append(unmarshal(arg.asVariant(), depth + 1));
        arg.endArray();
        return list;
    }
    case QDBusArgument::MapType: {
        QVariantMap map;
        arg.beginMap();
        while (!arg.atEnd()) {
            arg.beginMapEntry();
            const QVariant key = arg.asVariant();
            const QVariant v = arg.asVariant();
            arg.endMapEntry();
            map.insert(key.toString(), unmarshal(v, depth + 1));
        }
        arg.endMap();
        return map;
    }
    case QDBusArgument::VariantType:
        return unmarshal(arg.asVariant(), depth + 1);
    default:
        // Structures are not property-list values.
        return {};
    }
}

} // namespace

DistributedNotificationCenter::DistributedNotificationCenter() = default;

DistributedNotificationCenter *DistributedNotificationCenter::defaultCenter()
{
    static DistributedNotificationCenter *center = new DistributedNotificationCenter;
    return center;
}

bool DistributedNotificationCenter::isConnected() const
{
    return QDBusConnection::sessionBus().isConnected();
}

void DistributedNotificationCenter::warnNoBusOnce(const QString &name)
{
    if (m_warned)
        return;
    m_warned = true;
    qWarning("vantor: no D-Bus session bus (%s); notifications such as \"%s\" are not delivered",
             qPrintable(QDBusConnection::sessionBus().lastError().message()), qPrintable(name));
}

void DistributedNotificationCenter::postNotificationName(const QString &name, const QVariantMap &userInfo)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        warnNoBusOnce(name);
        return;
    }
    QDBusMessage signal = QDBusMessage::createSignal(QLatin1String(kPath), QLatin1String(kInterface),
                                                     QLatin1String(kMember));
    signal << name << userInfo;
    if (!bus.send(signal))
        qWarning("vantor: could not post \"%s\": %s", qPrintable(name), qPrintable(bus.lastError().message()));
}

void DistributedNotificationCenter::addObserver(QObject *observer, const QString &name, Handler handler)
{
    m_observers.append({observer, name, std::move(handler)});
    if (observer && observer != this) {
        connect(observer, &QObject::destroyed, this, [this](QObject *gone) {
            m_observers.removeIf([gone](const Observer &o) { return o.observer == gone; });
        });
    }
    if (m_subscribedNames.contains(name))
        return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        warnNoBusOnce(name);
        return;
    }
    if (bus.connect(QString(), QLatin1String(kPath), QLatin1String(kInterface), QLatin1String(kMember),
                    QStringList{name}, QStringLiteral("sa{sv}"), this,
                    SLOT(deliver(QString, QVariantMap))))
        m_subscribedNames.append(name);
    else
        qWarning("vantor: could not subscribe to \"%s\": %s", qPrintable(name),
                 qPrintable(bus.lastError().message()));
}

void DistributedNotificationCenter::deliver(const QString &name, const QVariantMap &userInfo)
{
    DistributedNotification note{name, {}};
    for (auto it = userInfo.cbegin(); it != userInfo.cend(); ++it)
        note.userInfo.insert(it.key(), unmarshal(it.value()));
    // A handler may add observers or delete its observer; work on a snapshot.
    const QList<Observer> snapshot = m_observers;
    for (const Observer &o : snapshot) {
        if (o.name != name)
            continue;
        const bool stillThere = std::any_of(m_observers.cbegin(), m_observers.cend(),
                                            [&](const Observer &x) { return x.observer == o.observer && x.name == name; });
        if (stillThere)
            o.handler(note);
    }
}
