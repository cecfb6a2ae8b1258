#include "prefpane/VTSizeToPrettySizeTransformer.h"

#include "common/VTUtil.h"

QVariant VTSizeToPrettySizeTransformer::transformedValue(const QVariant &value) const
{
    const quint64 size = value.isValid() ? value.toULongLong() : 0;
    if (size == 0)
        return QStringLiteral("-");
    return VTUtil::getPrettySize(size);
}
