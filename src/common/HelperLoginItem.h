#pragma once

#include <QObject>
#include <QString>

#include "common/VantorCommonExport.h"

// The helper's entry in the login window's list: "AutoLaunchedApplicationDictionary" of the
// "loginwindow" preferences domain, an array of {"AliasData", "Path", "Hide"} dictionaries
// opened in order at login. An entry is the helper's when its "Path" ends in "VantorHelper.app",
// wherever that copy lies; other applications' entries are never touched. Nothing is cached:
// every call reads the list afresh, since other programs edit it too.
class VANTOR_COMMON_EXPORT HelperLoginItem : public QObject
{
    Q_OBJECT
public:
    explicit HelperLoginItem(QObject *parent = nullptr);

    // At least one entry of the list is the helper's.
    static bool isEnabled();
    // Makes the list agree: appends one entry for the helper at helperPath, or removes every
    // entry of the helper. Writes nothing when it agrees already. A user with no list keeps
    // having none.
    void setEnabled(bool enabled, const QString &helperPath);
    // Replaces the helper's entries, if there are any, with one fresh entry for helperPath.
    void regenerate(const QString &helperPath);

Q_SIGNALS:
    // After each write of the list, so only when it really changed.
    void changed();
};
