// Property lists arrive from files anyone may have edited: the settings, the exclusion rules,
// the login list, a bundle's Info.plist. Whatever the bytes, reading must not crash, and
// whatever is read must be written back and read again as the same value.
#include "PropertyList.h"

#include <QCoreApplication>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const std::optional<QVariant> value = PropertyList::fromData(bytes);
    if (!value)
        return 0;

    // Read values are property-list values, so they can always be written...
    const QByteArray xml = PropertyList::toXml(*value);
    if (xml.isEmpty())
        std::abort();
    // ...and what was written reads back and writes out unchanged.
    const std::optional<QVariant> again = PropertyList::fromData(xml);
    if (!again || PropertyList::toXml(*again) != xml)
        std::abort();

    // What the readers of settings and rule files then ask of the values.
    const QVariantMap map = value->toMap();
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        PropertyList::boolValue(it.value());
    return 0;
}
