#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <memory>

class CompressionEngine;
class DesktopNotifier;
class FolderRequests;
class FolderWatch;
class HelperBus;
class HelperStatus;
class PowerMonitor;
class SavingsModel;
class TrayIcon;
struct DistributedNotification;

// The background helper, wiring its parts together: the bus front end hears the pane, the
// watch and the settle queue feed the compression engine, the savings model writes the
// records. It follows the pane's settings in "defaults.plist" (read only: the pane is its one
// writer) and logs one line per notification.
class VantorHelper : public QObject
{
    Q_OBJECT
public:
    explicit VantorHelper(const QString &version, QObject *parent = nullptr);
    ~VantorHelper() override;

    // False, with the reason logged, when there is no session bus or another helper already
    // owns the name.
    bool start();

    static QString defaultsPath();

private:
    void received(const DistributedNotification &notification);
    // Re-reads "defaults.plist"; returns how the settings stand, for the log.
    QString readDefaults();
    bool setting(const char *key) const;

    QString m_version;
    QVariantMap m_defaults;
    std::unique_ptr<HelperBus> m_bus;
    // Made once the bus name is ours; the engine goes first so its last progress is written.
    std::unique_ptr<DesktopNotifier> m_notifier;
    std::unique_ptr<SavingsModel> m_savings;
    std::unique_ptr<FolderWatch> m_watch;
    std::unique_ptr<PowerMonitor> m_power;
    std::unique_ptr<CompressionEngine> m_engine;
    std::unique_ptr<FolderRequests> m_folderRequests;
    std::unique_ptr<HelperStatus> m_status;
    std::unique_ptr<TrayIcon> m_trayIcon;
};
