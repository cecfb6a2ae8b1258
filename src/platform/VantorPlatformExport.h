#pragma once

#include <QtCore/qglobal.h>

#if defined(VANTOR_PLATFORM_LIBRARY)
#define VANTOR_PLATFORM_EXPORT Q_DECL_EXPORT
#else
#define VANTOR_PLATFORM_EXPORT Q_DECL_IMPORT
#endif
