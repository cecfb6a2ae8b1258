#pragma once

#include <QObject>
#include <QString>

struct DistributedNotification;

// The helper's side of the session bus: it listens for the pane's notifications and owns the
// name that says "the helper is running". Subscribed before the name is taken, since
// whoever sees the name may post at once.
class HelperBus : public QObject
{
    Q_OBJECT
public:
    explicit HelperBus(QObject *parent = nullptr);

    // False, with the reason in *why, when there is no session bus or another helper owns the name.
    bool start(QString *why);

Q_SIGNALS:
    void received(const DistributedNotification &notification);
    // The bus has gone: the helper can hear nothing more and ends with its session.
    void disconnected();

private Q_SLOTS:
    void busDisconnected();
};
