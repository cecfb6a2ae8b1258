#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include "common/VantorCommonExport.h"

// The user's settings, kept in memory and mirrored whole into "defaults.plist" in the
// product folder, which the helper reads. Every change is written at once; the change
// signals stand for key-value observation and fire after the file is written.
class VANTOR_COMMON_EXPORT VTDefaultsController : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool helperActive READ helperActive WRITE setHelperActive NOTIFY helperActiveChanged)
    Q_PROPERTY(bool checkForUpdates READ checkForUpdates WRITE setCheckForUpdates NOTIFY checkForUpdatesChanged)
    Q_PROPERTY(bool autorunAtLogin READ autorunAtLogin WRITE setAutorunAtLogin NOTIFY autorunAtLoginChanged)
    Q_PROPERTY(bool visible READ visible WRITE setVisible NOTIFY visibleChanged)

public:
    static constexpr const char *kFileName = "defaults.plist";
    static constexpr const char *kFirstRunKey = "firstRun";
    static constexpr const char *kFolderAliasesKey = "folderAliases";
    static constexpr const char *kActiveKey = "active";
    static constexpr const char *kRunAtLoginKey = "runAtLogin";
    static constexpr const char *kCheckUpdatesKey = "checkUpdates";
    static constexpr const char *kVisibleKey = "visible";

    static VTDefaultsController *sharedDefaultsController();
    // Allocation and initialisation: the first call makes the shared instance; every later
    // call returns null and touches nothing.
    static VTDefaultsController *create();

    QString defaultsFileName() const;
    void setupDefaultValues();
    void reload();
    void synchronize();

    // The in-memory settings themselves, not a copy. Changing them notifies no one.
    QVariantMap &defaults() { return m_defaults; }

    bool firstRun() const;
    void setFirstRunDone();
    bool helperActive() const;
    void setHelperActive(bool active);
    bool checkForUpdates() const;
    void setCheckForUpdates(bool check);
    bool autorunAtLogin() const;
    void setAutorunAtLogin(bool autorun);
    bool visible() const;
    void setVisible(bool visible);

Q_SIGNALS:
    void helperActiveChanged();
    void checkForUpdatesChanged();
    void autorunAtLoginChanged();
    void visibleChanged();

private:
    VTDefaultsController();
    bool boolForKey(const char *key) const;
    void setBoolForKey(const char *key, bool value);

    QVariantMap m_defaults;
    QVariantMap m_defaultValues;
};
