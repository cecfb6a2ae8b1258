#pragma once

#include <QLoggingCategory>

// The login-items agent's log lines, category "vantor.loginitems": switched with QT_LOGGING_RULES
// ("vantor.loginitems.info=false", "vantor.*=false").
Q_DECLARE_LOGGING_CATEGORY(lcLoginItems)
