// Property lists arrive from files anyone may have edited. Whatever the bytes, reading must not
// crash, and whatever is read must be written back and read again as the same value.
#include "platform/PropertyList.h"

#include <QDateTime>
#include <QDebug>

#include <algorithm>
#include <cmath>
#include <limits>
#include <cstdio>
#include <cstdlib>

namespace {

// Equality of read values, with NaN equal to itself.
bool same(const QVariant &a, const QVariant &b)
{
    if (a.typeId() != b.typeId())
        return false;
    switch (a.typeId()) {
    case QMetaType::Double:
        return a.toDouble() == b.toDouble() || (std::isnan(a.toDouble()) && std::isnan(b.toDouble()));
    case QMetaType::QDateTime: {
        // XML keeps dates to the second; libplist 2.2 misreads dates outside 1970-2038 (unused here).
        const qint64 x = a.toDateTime().toSecsSinceEpoch(), y = b.toDateTime().toSecsSinceEpoch();
        return std::abs(x - y) <= 1 || x < 0 || x > std::numeric_limits<qint32>::max();
    }
    case QMetaType::QVariantList: {
        const QVariantList x = a.toList(), y = b.toList();
        return std::equal(x.cbegin(), x.cend(), y.cbegin(), y.cend(), same);
    }
    case QMetaType::QVariantMap:
        return a.toMap().keys() == b.toMap().keys() && same(a.toMap().values(), b.toMap().values());
    default:
        return a == b;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const std::optional<QVariant> value = PropertyList::fromData(bytes);
    if (!value)
        return 0;

    // Read values are property-list values, so they can always be written...
    const QByteArray written = PropertyList::toData(*value);
    if (written.isEmpty())
        std::abort();
    // ...and what was written reads back as the same value.
    const std::optional<QVariant> again = PropertyList::fromData(written);
    if (!again || !same(*again, *value)) {
        std::fprintf(stderr, "read %s\nread back %s\n", qPrintable(QDebug::toString(*value)),
                     again ? qPrintable(QDebug::toString(*again)) : "nothing");
        std::abort();
    }

    // What the readers of settings and rule files then ask of the values.
    const QVariantMap map = value->toMap();
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        PropertyList::boolValue(it.value());
    return 0;
}
