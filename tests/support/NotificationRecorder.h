#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

// Watches every distributed notification on the session bus through a connection of its
// own, as dbus-monitor would, and keeps them in the order the bus delivered them.
class NotificationRecorder : public QObject
{
    Q_OBJECT
public:
    explicit NotificationRecorder(QObject *parent = nullptr);
    ~NotificationRecorder() override;

    QStringList names() const { return m_names; }
    QList<QVariantMap> userInfos() const { return m_userInfos; }
    int count(const QString &name) const { return int(m_names.count(name)); }
    // The payload of the first notification of that name; empty when none arrived.
    QVariantMap userInfo(const QString &name) const { return m_userInfos.value(m_names.indexOf(name)); }
    void clear();
    bool waitFor(const QString &name, int timeoutMs = 5000);
    void settle(int ms = 200);

private Q_SLOTS:
    void onPost(const QString &name, const QVariantMap &userInfo);

private:
    QString m_connectionName;
    QStringList m_names;
    QList<QVariantMap> m_userInfos;
};
