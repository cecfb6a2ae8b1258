#pragma once

#include <QMetaType>
#include <QVariant>

// Shows a byte count as its pretty size, and nothing ("-") for zero or no value. One way only.
class VTSizeToPrettySizeTransformer
{
public:
    static QMetaType transformedValueClass() { return QMetaType::fromType<QString>(); }
    static bool allowsReverseTransformation() { return false; }

    QVariant transformedValue(const QVariant &value) const;
    QVariant reverseTransformedValue(const QVariant &) const { return {}; }
};
