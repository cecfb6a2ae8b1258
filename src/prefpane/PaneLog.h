#pragma once

#include <QLoggingCategory>

// The pane's log lines, category "vantor.pane": switched with QT_LOGGING_RULES
// ("vantor.pane.info=false", "vantor.*=false").
Q_DECLARE_LOGGING_CATEGORY(lcPane)
