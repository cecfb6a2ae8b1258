#include "loginitems/LoginItemsLog.h"

Q_LOGGING_CATEGORY(lcLoginItems, "vantor.loginitems", QtInfoMsg)
