#pragma once

#include <QtCore/qglobal.h>

#if defined(VANTOR_GUI_LIBRARY)
#define VANTOR_GUI_EXPORT Q_DECL_EXPORT
#else
#define VANTOR_GUI_EXPORT Q_DECL_IMPORT
#endif
