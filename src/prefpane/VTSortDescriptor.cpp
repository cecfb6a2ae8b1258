#include "prefpane/VTSortDescriptor.h"

namespace {

int sign(int value)
{
    return value < 0 ? -1 : value > 0 ? 1 : 0;
}

int compareValues(const QVariant &a, const QVariant &b)
{
    const QPartialOrdering order = QVariant::compare(a, b);
    if (order == QPartialOrdering::Less)
        return -1;
    if (order == QPartialOrdering::Greater)
        return 1;
    return 0;
}

} // namespace

QString lastPathComponent(const QString &path)
{
    QStringView view(path);
    while (view.size() > 1 && view.endsWith(u'/'))
        view.chop(1);
    if (view == u"/")
        return path.left(1);
    const qsizetype slash = view.lastIndexOf(u'/');
    return view.mid(slash + 1).toString();
}

VTSortDescriptor::VTSortDescriptor(const QString &key, bool ascending, Comparison comparison)
    : m_key(key)
    , m_ascending(ascending)
    , m_comparison(comparison)
{
}

VTSortDescriptor VTSortDescriptor::reversedSortDescriptor() const
{
    return VTSortDescriptor(m_key, !m_ascending, m_comparison);
}

int VTSortDescriptor::compareObject(const QVariantMap &first, const QVariantMap &second) const
{
    const QString sortID = QStringLiteral("sortID");
    return compareRows(first.value(sortID).toInt(), first.value(m_key), second.value(sortID).toInt(),
                       second.value(m_key));
}

int VTSortDescriptor::compareRows(int firstSortID, const QVariant &first, int secondSortID,
                                  const QVariant &second) const
{
    // Tested before the key and the direction, so the summary row stays last either way.
    if (firstSortID == 1)
        return 1;
    if (secondSortID == 1)
        return -1;
    return compareByKey(first, second);
}

int VTSortDescriptor::compareByKey(const QVariant &a, const QVariant &b) const
{
    int result = 0;
    switch (m_comparison) {
    case Comparison::Default:
        result = compareValues(a, b);
        break;
    case Comparison::CaseInsensitive:
        result = caseInsensitiveCompare(a.toString(), b.toString());
        break;
    case Comparison::LastPathComponent:
        result = lastPathComponentCompare(a.toString(), b.toString());
        break;
    }
    return m_ascending ? result : -result;
}

int lastPathComponentCompare(const QString &receiver, const QString &other)
{
    return caseInsensitiveCompare(lastPathComponent(receiver), lastPathComponent(other));
}

int caseInsensitiveCompare(const QString &receiver, const QString &other)
{
    return sign(QString::compare(receiver, other, Qt::CaseInsensitive));
}
