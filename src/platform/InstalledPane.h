#pragma once

#include <QString>
#include <QStringList>

#include "platform/VantorPlatformExport.h"

// Where an installed Vantor pane bundle is found, for every program that needs it.
class VANTOR_PLATFORM_EXPORT InstalledPane
{
public:
    static constexpr const char *kBundleName = "Vantor.prefPane";

    // In order: the per-user install, beside the running program (<prefix>/bin ->
    // <prefix>/<libdir>/vantor/ or <prefix>/lib/vantor/), then the system-wide places.
    static QStringList searchPaths();
    // The first bundle of searchPaths() that exists; empty when none does.
    static QString find();

    InstalledPane() = delete;
};
