#include "btrfs/BtrfsLog.h"

Q_LOGGING_CATEGORY(lcBtrfs, "vantor.btrfs", QtInfoMsg)
