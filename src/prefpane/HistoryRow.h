#pragma once

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <array>

// One row of the folder table: the values a row dictionary holds, by key, kept without a
// dictionary's allocations because a refresh makes thousands of rows. Only the keys below
// exist; a dictionary's other keys are not kept.
class HistoryRow
{
public:
    enum Key { SortID, Folder, Path, Status, Savings, Enabled, KeyCount };

    // The key's index, or -1 for a key rows do not have.
    static int keyIndex(QStringView key);
    static QString keyName(Key key);

    static HistoryRow fromDictionary(const QVariantMap &dictionary);
    // The keys that hold a value, as a row dictionary.
    QVariantMap dictionary() const;

    const QVariant &value(Key key) const { return m_values[key]; }
    void setValue(Key key, QVariant value) { m_values[key] = std::move(value); }
    // The summary row of previous savings stands for no folder.
    bool isFolderRow() const { return m_values[SortID].toInt() == 0; }

private:
    std::array<QVariant, KeyCount> m_values;
};
