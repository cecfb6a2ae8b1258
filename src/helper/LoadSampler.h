#pragma once

#include "helper/Pacer.h"

// Reads what the pacer decides by from Linux, as any user may: the processors' time in user
// programs (/proc/stat), the helper's own (getrusage) and the time tasks waited for a
// processor (/proc/pressure/cpu, where the kernel has pressure stall information).
class LoadSampler
{
public:
    static Pacer::Sample take();
};
