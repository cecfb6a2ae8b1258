#pragma once

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

class QDBusMessage;

// Whether the machine runs on battery (UPower's "OnBattery") or in power-profiles-daemon's
// "power-saver" profile, for the helper to hold off rewriting files meanwhile.
// It reads both from the system bus at its start, then follows their PropertiesChanged signals
// and the services coming and going; nothing is polled. Without a system bus or without UPower
// it holds off for nothing, as on mains power, and says so once in the log.
class PowerMonitor : public QObject
{
    Q_OBJECT
public:
    // How long the first answers are waited for at the start.
    static constexpr int kReplyMs = 3000;

    explicit PowerMonitor(QObject *parent = nullptr);

    // Connects to the system bus and waits for the present state (at most kReplyMs), so work
    // starting right after knows it.
    void start();
    bool onBattery() const { return m_onBattery; }
    bool powerSaver() const { return m_powerSaver; }

Q_SIGNALS:
    void changed();

private Q_SLOTS:
    void propertiesChanged(const QString &interface, const QVariantMap &changed, const QStringList &invalidated);
    void busDisconnected();

private:
    // Asks service for its property again; the answer comes later.
    void read(const QString &service);
    void answered(const QString &service, const QDBusMessage &reply);
    void ownerChanged(const QString &service, const QString &oldOwner, const QString &newOwner);
    // Works out the state again from what is known, and signals a change.
    void update();
    // Once for the whole run: the helper cannot know and works as on mains power.
    void tellUnknown(const QString &why);

    // The property each service has said, by service (each service's interface is named as it is).
    QHash<QString, QVariant> m_values;
    bool m_onBattery = false;
    bool m_powerSaver = false;
    bool m_toldUnknown = false;
};
