#include "prefpane/ArrayController.h"

#include "prefpane/HistoryArrayModel.h"

#include <algorithm>

ArrayController::ArrayController(QObject *parent)
    : QSortFilterProxyModel(parent)
    , m_selection(this)
{
    setDynamicSortFilter(true);
}

void ArrayController::setSortDescriptors(const QList<VTSortDescriptor> &descriptors)
{
    m_descriptors = descriptors;
    invalidate();
}

void ArrayController::sort(int column, Qt::SortOrder order)
{
    m_order = order;
    // The direction is applied by the descriptor, which keeps the summary row last.
    QSortFilterProxyModel::sort(column, Qt::AscendingOrder);
    invalidate();
}

bool ArrayController::lessThan(const QModelIndex &left, const QModelIndex &right) const
{
    const int column = left.column();
    if (column < 0 || column >= m_descriptors.size())
        return QSortFilterProxyModel::lessThan(left, right);
    VTSortDescriptor descriptor = m_descriptors.at(column);
    if (m_order == Qt::DescendingOrder)
        descriptor = descriptor.reversedSortDescriptor();
    // Sorting compares many times per row: values are read from the rows, not dictionaries.
    const int keyColumn = int(HistoryArrayModel::columnKeys().indexOf(descriptor.key()));
    if (keyColumn < 0) {
        return descriptor.compareObject(left.data(HistoryArrayModel::RowRole).toMap(),
                                        right.data(HistoryArrayModel::RowRole).toMap())
            < 0;
    }
    const QModelIndex first = left.siblingAtColumn(keyColumn);
    const QModelIndex second = right.siblingAtColumn(keyColumn);
    return descriptor.compareRows(
               first.data(HistoryArrayModel::SortIDRole).toInt(), first.data(HistoryArrayModel::ValueRole),
               second.data(HistoryArrayModel::SortIDRole).toInt(), second.data(HistoryArrayModel::ValueRole))
        < 0;
}

Qt::ItemFlags ArrayController::flags(const QModelIndex &index) const
{
    const Qt::ItemFlags flags = QSortFilterProxyModel::flags(index);
    return m_flagsForRow && index.isValid() ? m_flagsForRow(index.row(), flags) : flags;
}

QList<QVariantMap> ArrayController::arrangedObjects() const
{
    QList<QVariantMap> objects;
    for (int row = 0; row < rowCount(); ++row)
        objects.append(index(row, 0).data(HistoryArrayModel::RowRole).toMap());
    return objects;
}

QList<int> ArrayController::selectionIndexes() const
{
    QList<int> rows;
    for (const QModelIndex &index : m_selection.selectedRows())
        rows.append(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

QList<QVariantMap> ArrayController::selectedObjects() const
{
    QList<QVariantMap> objects;
    for (int row : selectionIndexes())
        objects.append(index(row, 0).data(HistoryArrayModel::RowRole).toMap());
    return objects;
}

void ArrayController::setSelectionIndexes(const QList<int> &rows)
{
    QItemSelection selection;
    for (int row : rows) {
        if (row >= 0 && row < rowCount())
            selection.select(index(row, 0), index(row, columnCount() - 1));
    }
    m_selection.select(selection, QItemSelectionModel::ClearAndSelect);
}
