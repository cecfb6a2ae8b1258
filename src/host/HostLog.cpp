#include "host/HostLog.h"

Q_LOGGING_CATEGORY(lcHost, "vantor.host", QtInfoMsg)
