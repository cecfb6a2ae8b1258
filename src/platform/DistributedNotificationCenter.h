#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>

#include "platform/VantorPlatformExport.h"

// The system-wide, name-addressed broadcast between the pane and the helper: a D-Bus signal
// on the session bus (path /com/quillfen/vantor, interface
// com.quillfen.vantor.DistributedNotification, member Post, arguments (s name, a{sv} userInfo)).
// The object of a notification is always nil and so is not carried.
struct DistributedNotification {
    QString name;
    QVariantMap userInfo;
};

class VANTOR_PLATFORM_EXPORT DistributedNotificationCenter : public QObject
{
    Q_OBJECT
public:
    using Handler = std::function<void(const DistributedNotification &)>;

    static constexpr const char *kPath = "/com/quillfen/vantor";
    static constexpr const char *kInterface = "com.quillfen.vantor.DistributedNotification";
    static constexpr const char *kMember = "Post";

    static DistributedNotificationCenter *defaultCenter();

    // Posting without a bus loses the notification, as posting with no helper does; one
    // warning is logged the first time.
    void postNotificationName(const QString &name, const QVariantMap &userInfo = {});

    // Calls handler on the main thread for every notification of that name, for as long as
    // observer exists. The bus delivers only names someone here asked for (arg0 match).
    void addObserver(QObject *observer, const QString &name, Handler handler);

    bool isConnected() const;

private Q_SLOTS:
    void deliver(const QString &name, const QVariantMap &userInfo);

private:
    DistributedNotificationCenter();
    void warnNoBusOnce(const QString &name);

    struct Observer {
        QObject *observer;
        QString name;
        Handler handler;
    };
    QList<Observer> m_observers;
    QStringList m_subscribedNames;
    bool m_warned = false;
};
