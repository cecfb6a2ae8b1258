#include "platform/DistributedNotificationCenter.h"
#include "platform/PlatformLog.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QPointer>

namespace {

// Incoming a{sv} values arrive partly still marshalled, and carry whatever D-Bus types the
// sender chose. Handlers are promised property-list values: types with a property-list
// counterpart are converted (bytes to integers, object paths and signatures to strings),
// the rest (structures, file descriptors) are dropped. An invalid result means "drop".
QVariant unmarshal(const QVariant &value, int depth = 0)
{
    if (depth > 64)
        return {};
    const int type = value.userType();
    if (type == qMetaTypeId<QDBusVariant>())
        return unmarshal(value.value<QDBusVariant>().variant(), depth + 1);
    if (type == qMetaTypeId<QDBusObjectPath>())
        return value.value<QDBusObjectPath>().path();
    if (type == qMetaTypeId<QDBusSignature>())
        return value.value<QDBusSignature>().signature();
    switch (type) {
    case QMetaType::Bool:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::QString:
    case QMetaType::QByteArray:
    case QMetaType::QStringList:
        return value;
    case QMetaType::UChar:
        return int(value.value<uchar>());
    default:
        break;
    }
    if (type != qMetaTypeId<QDBusArgument>())
        return {};

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
        while (!arg.atEnd()) {
            const QVariant item = unmarshal(arg.asVariant(), depth + 1);
            if (item.isValid())
                list.append(item);
        }
        arg.endArray();
        return list;
    }
    case QDBusArgument::MapType: {
        QVariantMap map;
        arg.beginMap();
        while (!arg.atEnd()) {
            arg.beginMapEntry();
            const QVariant key = unmarshal(arg.asVariant(), depth + 1);
            const QVariant v = unmarshal(arg.asVariant(), depth + 1);
            arg.endMapEntry();
            if (key.isValid() && v.isValid())
                map.insert(key.toString(), v);
        }
        arg.endMap();
        return map;
    }
    case QDBusArgument::VariantType:
        return unmarshal(arg.asVariant(), depth + 1);
    default:
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
    qCWarning(lcPlatform, "no D-Bus session bus (%s); notifications such as \"%s\" are not delivered",
              qPrintable(QDBusConnection::sessionBus().lastError().message()), qPrintable(name));
}

void DistributedNotificationCenter::postNotificationName(const QString &name, const QVariantMap &userInfo)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        warnNoBusOnce(name);
        return;
    }
    QDBusMessage signal =
        QDBusMessage::createSignal(QLatin1String(kPath), QLatin1String(kInterface), QLatin1String(kMember));
    signal << name << userInfo;
    if (!bus.send(signal))
        qCWarning(lcPlatform, "could not post \"%s\": %s", qPrintable(name), qPrintable(bus.lastError().message()));
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
                    QStringList{name}, QStringLiteral("sa{sv}"), this, SLOT(deliver(QString, QVariantMap))))
        m_subscribedNames.append(name);
    else
        qCWarning(lcPlatform, "could not subscribe to \"%s\": %s", qPrintable(name),
                  qPrintable(bus.lastError().message()));
}

void DistributedNotificationCenter::deliver(const QString &name, const QVariantMap &userInfo)
{
    DistributedNotification note{name, {}};
    for (auto it = userInfo.cbegin(); it != userInfo.cend(); ++it) {
        const QVariant value = unmarshal(it.value());
        if (value.isValid())
            note.userInfo.insert(it.key(), value);
    }
    // A handler may add observers or delete its observer; work on a snapshot.
    const QList<Observer> snapshot = m_observers;
    for (const Observer &o : snapshot) {
        if (o.name != name)
            continue;
        const bool stillThere = std::any_of(m_observers.cbegin(), m_observers.cend(), [&](const Observer &x) {
            return x.observer == o.observer && x.name == name;
        });
        if (stillThere)
            o.handler(note);
    }
}
