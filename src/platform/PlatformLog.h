#pragma once

#include <QLoggingCategory>

// The platform library's log lines, category "vantor.platform": switched with QT_LOGGING_RULES
// ("vantor.platform.info=false", "vantor.*=false").
Q_DECLARE_LOGGING_CATEGORY(lcPlatform)
