#include "prefpane/PaneLog.h"

Q_LOGGING_CATEGORY(lcPane, "vantor.pane", QtInfoMsg)
