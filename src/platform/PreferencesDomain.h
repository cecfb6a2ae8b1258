#pragma once

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include "platform/VantorPlatformExport.h"

// One preferences domain of the current user, kept as an XML property list (a dictionary)
// in $XDG_CONFIG_HOME/vantor/preferences/<domain>.plist. Values are read from the file on
// every call, since other programs edit it too; changes wait for synchronize().
class VANTOR_PLATFORM_EXPORT PreferencesDomain
{
public:
    explicit PreferencesDomain(const QString &domain);

    static QString directory();
    QString filePath() const;

    // The value under key, or an invalid QVariant when the domain or the key is absent.
    QVariant copyValue(const QString &key) const;
    // An invalid value removes the key.
    void setValue(const QString &key, const QVariant &value);
    // Writes the pending changes over what the file holds now, atomically and user-only.
    // Nothing is written when they change nothing; a file that is not a property list is
    // left as it is and reported.
    bool synchronize();

private:
    // The file's dictionary; ok is false when it exists but cannot be read as one.
    QVariantMap read(bool *ok) const;

    QString m_domain;
    QVariantMap m_pending;
};
