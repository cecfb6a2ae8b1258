#pragma once

#include <QLoggingCategory>

// The widget library's log lines, category "vantor.gui": switched with QT_LOGGING_RULES
// ("vantor.gui.info=false", "vantor.*=false").
Q_DECLARE_LOGGING_CATEGORY(lcGui)
