#pragma once

#include <QLoggingCategory>

// The host, vantor-preferences's log lines, category "vantor.host": switched with QT_LOGGING_RULES
// ("vantor.host.info=false", "vantor.*=false").
Q_DECLARE_LOGGING_CATEGORY(lcHost)
