#pragma once

#include <QProcess>
#include <QString>
#include <QVariant>

// A private system bus of the test's own, open to other users as the test's session bus is,
// with python3-dbusmock standing in for UPower and power-profiles-daemon ("balanced", on mains).
// Programs started afterwards find it through DBUS_SYSTEM_BUS_ADDRESS; what it started ends,
// and the variable is put back, when it goes.
class SystemBusMock
{
public:
    ~SystemBusMock();

    // True once the bus runs and the stand-ins own their names; without UPower when upower is false.
    bool start(bool upower = true);
    // Each emits PropertiesChanged, as the real services do.
    bool setOnBattery(bool onBattery);
    bool setProfile(const QString &profile);

private:
    bool set(const QString &service, const QString &property, const QVariant &value);

    QProcess m_processes[3]; // the bus first
    QByteArray m_previous = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
};
