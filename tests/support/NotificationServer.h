#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

// Stands in for the desktop's notification service (org.freedesktop.Notifications) on a
// test's own bus, keeping what each notification said.
class NotificationServer : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Call {
        QString summary;
        QString body;
    };
    QList<Call> calls;

public Q_SLOTS:
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int)
    {
        calls.append({summary, body});
        return uint(calls.size());
    }
};
