#pragma once

#include <QObject>
#include <QString>

// Messages for the user through the desktop's notification service
// (org.freedesktop.Notifications on the session bus). Without one, the message is logged.
class DesktopNotifier : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *kService = "org.freedesktop.Notifications";
    static constexpr const char *kPath = "/org/freedesktop/Notifications";
    static constexpr const char *kAppName = "Vantor";

    explicit DesktopNotifier(QObject *parent = nullptr);

    void notify(const QString &summary, const QString &body);
};
