// Property lists arrive from files anyone may have edited: the settings, the exclusion rules,
// the login list, a bundle's Info.plist. Whatever the bytes, reading must not crash, and
// whatever is read must be written back and read again as the same value.
#include "platform/PropertyList.h"

#include <QDebug>

#include <QDateTime>

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
        // XML keeps dates to about the second, and libplist 2.2 reads dates before 1970 or after
        // 2038 back as other dates (a known limit; nothing here stores dates).
        const qint64 x = a.toDateTime().toSecsSinceEpoch(), y = b.toDateTime().toSecsSinceEpoch();
        return std::abs(x - y) <= 1 || x < 0 || x > std::numeric_limits<qint32>::max();
    }
    case QMetaType::QVariantList: {
        const QVariantList x = a.toList(), y = b.toList();
        if (x.size() != y.size())
            return false;
        for (qsizetype i = 0; i < x.size(); ++i) {
            if (!same(x.at(i), y.at(i)))
                return false;
        }
        return true;
    }
    case QMetaType::QVariantMap: {
        const QVariantMap x = a.toMap(), y = b.toMap();
        if (x.keys() != y.keys())
            return false;
        for (auto it = x.cbegin(); it != x.cend(); ++it) {
            if (!same(it.value(), y.value(it.key())))
                return false;
        }
        return true;
    }
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
