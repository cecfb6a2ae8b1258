#include "gui/GuiLog.h"

Q_LOGGING_CATEGORY(lcGui, "vantor.gui", QtInfoMsg)
