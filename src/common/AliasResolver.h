#pragma once

#include <QByteArray>

#include <optional>

#include "common/AliasRecord.h"
#include "common/VantorCommonExport.h"

class FSRef;

// Makes alias records and finds their items again, without asking anyone and without
// mounting anything.
class VANTOR_COMMON_EXPORT AliasResolver
{
public:
    // How far the search for a moved item may go.
    static constexpr int kMaxDirectories = 500000;
    static constexpr int kMaxMilliseconds = 5000;

    // A record of target, relative to base when one is given; nullopt with *status set
    // (-43 file not found, -35 no such volume) when the target has no usable path.
    static std::optional<AliasRecord> makeRecord(const FSRef &target, const FSRef *base, int *status);

    // The item's present absolute path; empty when its volume is not mounted or it cannot
    // be found within the search bounds. A base, when given, is tried for relative records.
    static QByteArray resolve(const AliasRecord &record, const FSRef *base);

    // Opening by kernel file handle needs CAP_DAC_READ_SEARCH; benchmarks switch it off to
    // measure what an ordinary user gets.
    static void setUseFileHandles(bool use);

    AliasResolver() = delete;
};
