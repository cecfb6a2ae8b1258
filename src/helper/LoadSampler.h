#pragma once

#include "helper/Pacer.h"

// Reads what the pacer decides by from Linux, as any user may: the processors' time in user
// programs (/proc/stat) and the helper's own (getrusage). Pressure stall information
// (/proc/pressure/cpu) cannot tell others from the helper: its own threads and the kernel's
// workers for it wait for each other too.
class LoadSampler
{
public:
    static Pacer::Sample take();
};
