#pragma once

#include <QLoggingCategory>

// The btrfs library's log lines, category "vantor.btrfs": in the helper they go to its log
// like its own; switched with QT_LOGGING_RULES ("vantor.btrfs.info=false").
Q_DECLARE_LOGGING_CATEGORY(lcBtrfs)
