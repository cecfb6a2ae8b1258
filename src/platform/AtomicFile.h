#pragma once

#include <QByteArray>
#include <QString>

#include "platform/VantorPlatformExport.h"

// Whole-file replacement that never leaves a half-written file: the bytes go to a
// temporary file in the same folder, are flushed to disk and renamed over the target.
class VANTOR_PLATFORM_EXPORT AtomicFile
{
public:
    // mode applies to the new file; user-only by default since our files hold the user's data.
    static bool write(const QString &path, const QByteArray &bytes, QString *error = nullptr, unsigned mode = 0600);
};
