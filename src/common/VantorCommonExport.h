#pragma once

#include <QtCore/qglobal.h>

#if defined(VANTOR_COMMON_LIBRARY)
#define VANTOR_COMMON_EXPORT Q_DECL_EXPORT
#else
#define VANTOR_COMMON_EXPORT Q_DECL_IMPORT
#endif
