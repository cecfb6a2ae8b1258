#pragma once

#include <QString>
#include <QVariantMap>

// Orders rows of the folder table (row dictionaries) by one key. The summary row ("sortID" 1)
// sorts after every folder row whatever the key and direction.
class VTSortDescriptor
{
public:
    enum class Comparison {
        Default, // the values' natural order (numbers by value, strings literally)
        CaseInsensitive, // caseInsensitiveCompare
        LastPathComponent, // lastPathComponentCompare
    };

    VTSortDescriptor() = default;
    VTSortDescriptor(const QString &key, bool ascending, Comparison comparison = Comparison::Default);

    QString key() const { return m_key; }
    bool ascending() const { return m_ascending; }
    Comparison comparison() const { return m_comparison; }
    VTSortDescriptor reversedSortDescriptor() const;

    // -1 when first goes before second, 0 when equal, 1 when after.
    int compareObject(const QVariantMap &first, const QVariantMap &second) const;
    // The same order over each row's "sortID" and its value for the key.
    int compareRows(int firstSortID, const QVariant &first, int secondSortID, const QVariant &second) const;

private:
    // The plain sort descriptor's answer: the key's values compared, negated when descending.
    int compareByKey(const QVariant &first, const QVariant &second) const;

    QString m_key;
    bool m_ascending = true;
    Comparison m_comparison = Comparison::Default;
};

// The text after the last "/" (trailing slashes ignored; "/" itself for the root).
QString lastPathComponent(const QString &path);
// Compares the last path components of two paths, ignoring case.
int lastPathComponentCompare(const QString &receiver, const QString &other);
// The platform's case-insensitive string comparison, as -1, 0 or 1.
int caseInsensitiveCompare(const QString &receiver, const QString &other);
