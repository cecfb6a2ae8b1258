#include "prefpane/HistoryRow.h"

namespace {

constexpr std::array<QStringView, HistoryRow::KeyCount> kKeys{u"sortID", u"folder",  u"path",
                                                              u"status", u"savings", u"enabled"};

} // namespace

int HistoryRow::keyIndex(QStringView key)
{
    for (int i = 0; i < KeyCount; ++i) {
        if (kKeys[i] == key)
            return i;
    }
    return -1;
}

QString HistoryRow::keyName(Key key)
{
    return kKeys[key].toString();
}

HistoryRow HistoryRow::fromDictionary(const QVariantMap &dictionary)
{
    HistoryRow row;
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it) {
        const int index = keyIndex(it.key());
        if (index >= 0)
            row.m_values[index] = it.value();
    }
    return row;
}

QVariantMap HistoryRow::dictionary() const
{
    QVariantMap dictionary;
    for (int i = 0; i < KeyCount; ++i) {
        if (m_values[i].isValid())
            dictionary.insert(kKeys[i].toString(), m_values[i]);
    }
    return dictionary;
}
