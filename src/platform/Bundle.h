#pragma once

#include <QString>
#include <QVariantMap>

#include "platform/VantorPlatformExport.h"

// A bundle directory: <path>/Contents/Info.plist, <path>/Contents/Resources/, and for an
// application <path>/Contents/MacOS/<CFBundleExecutable>. Bundles are created once per path
// and live until the process ends, so a bundle can be found again by its identifier.
class VANTOR_PLATFORM_EXPORT Bundle
{
public:
    // The bundle at path (made absolute and cleaned), or null when path is not a directory.
    static Bundle *bundleWithPath(const QString &path);
    // A bundle this process has already opened, found by "CFBundleIdentifier".
    static Bundle *bundleWithIdentifier(const QString &identifier);
    // The bundle of the running executable: the .app around Contents/MacOS/<exe>, else the
    // executable's folder.
    static Bundle *mainBundle();

    QString bundlePath() const { return m_path; }
    QString resourcePath() const;
    QString infoPlistPath() const;
    // Read once, when the bundle is first opened; empty when Info.plist is missing or broken.
    QVariantMap infoDictionary() const { return m_info; }
    QVariant objectForInfoDictionaryKey(const QString &key) const { return m_info.value(key); }
    QString bundleIdentifier() const;
    QString executablePath() const;
    // Resources/<name>.<type>; empty when nothing is there.
    QString pathForResource(const QString &name, const QString &type) const;

private:
    explicit Bundle(const QString &path);

    QString m_path;
    QVariantMap m_info;
};
