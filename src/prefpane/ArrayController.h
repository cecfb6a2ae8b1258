#pragma once

#include <QItemSelectionModel>
#include <QList>
#include <QSortFilterProxyModel>
#include <QVariantMap>

#include <functional>

#include "prefpane/VTSortDescriptor.h"

// Arranges the folder table's rows for display: sorts them with one VTSortDescriptor per
// column and holds the selection. Both directions go through the descriptor, so the summary
// row stays last (a plain proxy would reverse it when descending). "Arranged" and "selected"
// objects are in the sorted order.
class ArrayController : public QSortFilterProxyModel
{
    Q_OBJECT
public:
    using FlagsForRow = std::function<Qt::ItemFlags(int row, Qt::ItemFlags flags)>;

    explicit ArrayController(QObject *parent = nullptr);

    // Index i sorts column i.
    void setSortDescriptors(const QList<VTSortDescriptor> &descriptors);
    QList<VTSortDescriptor> sortDescriptors() const { return m_descriptors; }
    // Lets the table's delegate decide which rows are enabled and selectable.
    void setFlagsForRow(FlagsForRow flagsForRow) { m_flagsForRow = std::move(flagsForRow); }

    QItemSelectionModel *selectionModel() { return &m_selection; }
    QList<QVariantMap> arrangedObjects() const;
    QList<QVariantMap> selectedObjects() const;
    QList<int> selectionIndexes() const;
    void setSelectionIndexes(const QList<int> &rows);

    void sort(int column, Qt::SortOrder order = Qt::AscendingOrder) override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;

protected:
    bool lessThan(const QModelIndex &left, const QModelIndex &right) const override;

private:
    QList<VTSortDescriptor> m_descriptors;
    Qt::SortOrder m_order = Qt::AscendingOrder;
    FlagsForRow m_flagsForRow;
    QItemSelectionModel m_selection;
};
