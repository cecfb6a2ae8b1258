#include "helper/DesktopNotifier.h"
#include "helper/HelperLog.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

DesktopNotifier::DesktopNotifier(QObject *parent)
    : QObject(parent)
{
}

void DesktopNotifier::notify(const QString &summary, const QString &body)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
                                                       QLatin1String(kService), QStringLiteral("Notify"));
    call << QLatin1String(kAppName) << uint(0) << QStringLiteral("drive-harddisk") << summary << body << QStringList()
         << QVariantMap() << int(-1);
    // Asynchronous: a slow or missing notification service must not hold up the helper.
    auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [summary, body](QDBusPendingCallWatcher *w) {
        const QDBusPendingReply<uint> reply = *w;
        if (reply.isError())
            qCWarning(lcHelper, "no desktop notification (%s): %s: %s", qPrintable(reply.error().message()),
                      qPrintable(summary), qPrintable(body));
        w->deleteLater();
    });
}
