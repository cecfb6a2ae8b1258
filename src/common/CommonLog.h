#pragma once

#include <QLoggingCategory>

// The shared model's log lines, category "vantor.common": switched with QT_LOGGING_RULES
// ("vantor.common.info=false", "vantor.*=false").
Q_DECLARE_LOGGING_CATEGORY(lcCommon)
