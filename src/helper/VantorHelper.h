#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <memory>

class CompressionEngine;
class DesktopNotifier;
class FolderRequests;
class SavingsModel;
class TrayIcon;
struct DistributedNotification;

// The background helper. It owns the bus name that says "the helper is running", follows
// the pane's settings in "defaults.plist" (read only: the pane is its one writer) and acts on
// the pane's notifications, writing one line per notification to its log.
class VantorHelper : public QObject
{
    Q_OBJECT
public:
    explicit VantorHelper(const QString &version, QObject *parent = nullptr);
    ~VantorHelper() override;

    // Subscribes, then takes the bus name. False, with the reason logged, when there is no
    // session bus or another helper already owns the name.
    bool start();

    QVariantMap defaults() const { return m_defaults; }
    static QString defaultsPath();
    static QString logPath();

private Q_SLOTS:
    void busDisconnected();

private:
    void received(const DistributedNotification &notification);
    // Re-reads "defaults.plist"; returns how the settings stand, for the log.
    QString readDefaults();
    bool setting(const char *key) const;
    void log(const QString &line);

    QString m_version;
    QVariantMap m_defaults;
    int m_logFd = -1;
    // Made once the bus name is ours; the engine goes first so its last progress is written.
    std::unique_ptr<DesktopNotifier> m_notifier;
    std::unique_ptr<SavingsModel> m_savings;
    std::unique_ptr<CompressionEngine> m_engine;
    std::unique_ptr<FolderRequests> m_folderRequests;
    std::unique_ptr<TrayIcon> m_trayIcon;
};
