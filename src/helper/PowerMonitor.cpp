#include "helper/PowerMonitor.h"

#include "helper/HelperLog.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

namespace {

// Where each service keeps its property; the interface is named as the service.
struct Source {
    QString service;
    QString path;
    QString property;
};

const QString kUPower = QStringLiteral("org.freedesktop.UPower");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

const Source kSources[] = {
    {kUPower, QStringLiteral("/org/freedesktop/UPower"), QStringLiteral("OnBattery")},
    // power-profiles-daemon, under its present name and the one it had before 0.20.
    {QStringLiteral("org.freedesktop.UPower.PowerProfiles"), QStringLiteral("/org/freedesktop/UPower/PowerProfiles"),
     QStringLiteral("ActiveProfile")},
    {QStringLiteral("net.hadess.PowerProfiles"), QStringLiteral("/net/hadess/PowerProfiles"),
     QStringLiteral("ActiveProfile")},
};

const Source *sourceOf(const QString &service)
{
    for (const Source &source : kSources) {
        if (source.service == service)
            return &source;
    }
    return nullptr;
}

QDBusConnection systemBus()
{
    return QDBusConnection::systemBus();
}

QDBusPendingCall ask(const Source &source)
{
    QDBusMessage get = QDBusMessage::createMethodCall(source.service, source.path, kProperties, QStringLiteral("Get"));
    get << source.service << source.property;
    return systemBus().asyncCall(get, PowerMonitor::kReplyMs);
}

} // namespace

PowerMonitor::PowerMonitor(QObject *parent)
    : QObject(parent)
{
}

void PowerMonitor::start()
{
    QDBusConnection bus = systemBus();
    if (!bus.isConnected()) {
        tellUnknown(QStringLiteral("no system bus (%1)").arg(bus.lastError().message()));
        return;
    }
    QStringList services;
    for (const Source &source : kSources) {
        services.append(source.service);
        bus.connect(source.service, source.path, kProperties, QStringLiteral("PropertiesChanged"), this,
                    SLOT(propertiesChanged(QString, QVariantMap, QStringList)));
    }
    auto *watcher = new QDBusServiceWatcher(this);
    watcher->setConnection(bus);
    watcher->setWatchedServices(services);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &PowerMonitor::ownerChanged);
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"), QStringLiteral("org.freedesktop.DBus.Local"),
                QStringLiteral("Disconnected"), this, SLOT(busDisconnected()));
    // Asked together, then waited for: work starting right after must not rewrite on battery.
    QList<std::pair<QString, QDBusPendingCall>> calls;
    for (const Source &source : kSources)
        calls.append({source.service, ask(source)});
    for (auto &[service, call] : calls) {
        call.waitForFinished();
        answered(service, call.reply());
    }
}

void PowerMonitor::read(const QString &service)
{
    auto *watcher = new QDBusPendingCallWatcher(ask(*sourceOf(service)), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, service](QDBusPendingCallWatcher *done) {
        answered(service, done->reply());
        done->deleteLater();
    });
}

void PowerMonitor::answered(const QString &service, const QDBusMessage &reply)
{
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
        m_values.insert(service, reply.arguments().constFirst().value<QDBusVariant>().variant());
    } else {
        m_values.remove(service);
        // power-profiles-daemon is optional; UPower is what tells battery from mains.
        if (service == kUPower)
            tellUnknown(QStringLiteral("UPower does not answer on the system bus (%1)").arg(reply.errorMessage()));
    }
    update();
}

void PowerMonitor::propertiesChanged(const QString &interface, const QVariantMap &changed,
                                     const QStringList &invalidated)
{
    const Source *source = sourceOf(interface);
    if (!source)
        return;
    if (changed.contains(source->property)) {
        m_values.insert(interface, changed.value(source->property));
        update();
    } else if (invalidated.contains(source->property)) {
        read(interface);
    }
}

void PowerMonitor::ownerChanged(const QString &service, const QString &, const QString &newOwner)
{
    if (newOwner.isEmpty()) {
        // Gone: what it said no longer holds.
        m_values.remove(service);
        update();
    } else {
        read(service);
    }
}

void PowerMonitor::busDisconnected()
{
    m_values.clear();
    m_toldUnknown = false; // a new reason, and it can happen once only
    tellUnknown(QStringLiteral("the system bus has gone"));
    update();
}

void PowerMonitor::update()
{
    const bool onBattery = m_values.value(kUPower).toBool();
    bool powerSaver = false;
    for (const QVariant &value : std::as_const(m_values))
        powerSaver = powerSaver || value.toString() == QLatin1String("power-saver");
    if (onBattery == m_onBattery && powerSaver == m_powerSaver)
        return;
    m_onBattery = onBattery;
    m_powerSaver = powerSaver;
    Q_EMIT changed();
}

void PowerMonitor::tellUnknown(const QString &why)
{
    if (std::exchange(m_toldUnknown, true))
        return;
    qCInfo(lcHelper, "%s: compression runs as on mains power", qPrintable(why));
}
