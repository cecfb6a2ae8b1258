#include "common/CommonLog.h"

Q_LOGGING_CATEGORY(lcCommon, "vantor.common", QtInfoMsg)
