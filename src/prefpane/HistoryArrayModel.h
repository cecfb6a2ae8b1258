#pragma once

#include "prefpane/HistoryRow.h"

#include <QAbstractTableModel>
#include <QList>
#include <QVariantMap>

// The folder table's rows (`historyArray`): one row dictionary per listed folder, and the
// summary row last when there is one. Columns show the keys "folder", "path", "status" and
// "savings".
class HistoryArrayModel : public QAbstractTableModel
{
    Q_OBJECT
public:
    enum Role {
        // The row's whole dictionary.
        RowRole = Qt::UserRole + 1,
        // The column key's raw value.
        ValueRole,
        // The row's "sortID": 1 for the summary row.
        SortIDRole,
    };

    explicit HistoryArrayModel(QObject *parent = nullptr);

    static QStringList columnKeys();

    // The rows as row dictionaries, made on each call.
    QList<QVariantMap> rows() const;
    QVariantMap row(int index) const;
    // Replaces every row (a model reset).
    void setRows(const QList<HistoryRow> &rows);
    void setRows(const QList<QVariantMap> &rows);
    void appendRow(const HistoryRow &row);
    void appendRow(const QVariantMap &row) { appendRow(HistoryRow::fromDictionary(row)); }

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

    // Folder rows drag out as their folders, like files from a file manager.
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    QStringList mimeTypes() const override;
    QMimeData *mimeData(const QModelIndexList &indexes) const override;
    Qt::DropActions supportedDragActions() const override;

private:
    QList<HistoryRow> m_rows;
};
