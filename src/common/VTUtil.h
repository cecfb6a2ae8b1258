#pragma once

#include <QString>

#include "VantorCommonExport.h"

// Class-level utilities shared by the pane and the helper.
class VANTOR_COMMON_EXPORT VTUtil
{
public:
    // The product folder "Vantor" in the user's application-data folder, made on first use
    // (without intermediate folders) and kept for the life of the process. Empty when it did
    // not exist and could not be made; the next call then tries again.
    static QString applicationSupportFolder();

    // Tests only: forget the kept product folder so the next call looks it up again.
    static void forgetApplicationSupportFolder();

    VTUtil() = delete;
};
