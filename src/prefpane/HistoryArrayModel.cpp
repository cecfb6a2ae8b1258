#include "prefpane/HistoryArrayModel.h"

#include "prefpane/VTSizeToPrettySizeTransformer.h"

#include <QFileInfo>
#include <QMimeData>
#include <QUrl>

#include <iterator>
#include <set>

HistoryArrayModel::HistoryArrayModel(QObject *parent)
    : QAbstractTableModel(parent)
{
}

namespace {

constexpr HistoryRow::Key kColumns[] = {HistoryRow::Folder, HistoryRow::Path, HistoryRow::Status, HistoryRow::Savings};
constexpr int kColumnCount = int(std::size(kColumns));

} // namespace

QStringList HistoryArrayModel::columnKeys()
{
    static const QStringList keys = [] {
        QStringList names;
        for (HistoryRow::Key key : kColumns)
            names.append(HistoryRow::keyName(key));
        return names;
    }();
    return keys;
}

QList<QVariantMap> HistoryArrayModel::rows() const
{
    QList<QVariantMap> rows;
    rows.reserve(m_rows.size());
    for (const HistoryRow &row : m_rows)
        rows.append(row.dictionary());
    return rows;
}

QVariantMap HistoryArrayModel::row(int index) const
{
    return index >= 0 && index < m_rows.size() ? m_rows.at(index).dictionary() : QVariantMap();
}

void HistoryArrayModel::setRows(const QList<HistoryRow> &rows)
{
    beginResetModel();
    m_rows = rows;
    endResetModel();
}

void HistoryArrayModel::setRows(const QList<QVariantMap> &rows)
{
    QList<HistoryRow> historyRows;
    historyRows.reserve(rows.size());
    for (const QVariantMap &row : rows)
        historyRows.append(HistoryRow::fromDictionary(row));
    setRows(historyRows);
}

void HistoryArrayModel::appendRow(const HistoryRow &row)
{
    beginInsertRows({}, int(m_rows.size()), int(m_rows.size()));
    m_rows.append(row);
    endInsertRows();
}

int HistoryArrayModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int HistoryArrayModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : kColumnCount;
}

QVariant HistoryArrayModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows.size() || index.column() >= kColumnCount)
        return {};
    const HistoryRow &row = m_rows.at(index.row());
    const HistoryRow::Key key = kColumns[index.column()];
    const QVariant &value = row.value(key);
    switch (role) {
    case RowRole:
        return row.dictionary();
    case ValueRole:
        return value;
    case SortIDRole:
        return row.value(HistoryRow::SortID);
    case Qt::DisplayRole:
        // Plain texts until the table's own cells draw the rows.
        switch (key) {
        case HistoryRow::Folder:
            return row.isFolderRow() ? QFileInfo(value.toString()).fileName() : value.toString();
        case HistoryRow::Status:
            return QStringLiteral("%1%").arg(qMin(value.toUInt(), 100u));
        case HistoryRow::Savings:
            return VTSizeToPrettySizeTransformer().transformedValue(value);
        default:
            return value;
        }
    case Qt::ToolTipRole:
        return row.value(HistoryRow::Path);
    default:
        return {};
    }
}

QVariant HistoryArrayModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    static const QStringList titles{QStringLiteral("Folder"), QStringLiteral("Path"), QStringLiteral("Status"),
                                    QStringLiteral("Savings")};
    return titles.value(section);
}

Qt::ItemFlags HistoryArrayModel::flags(const QModelIndex &index) const
{
    Qt::ItemFlags flags = QAbstractTableModel::flags(index);
    // The summary row stands for no folder.
    if (index.isValid() && index.row() < m_rows.size() && m_rows.at(index.row()).isFolderRow())
        flags |= Qt::ItemIsDragEnabled;
    return flags;
}

QStringList HistoryArrayModel::mimeTypes() const
{
    return {QStringLiteral("text/uri-list"), QStringLiteral("text/plain")};
}

QMimeData *HistoryArrayModel::mimeData(const QModelIndexList &indexes) const
{
    std::set<int> rows;
    for (const QModelIndex &index : indexes) {
        if (index.isValid() && (flags(index) & Qt::ItemIsDragEnabled))
            rows.insert(index.row());
    }
    if (rows.empty())
        return nullptr;
    QList<QUrl> urls;
    QStringList paths;
    for (int row : rows) {
        const QString path = m_rows.at(row).value(HistoryRow::Path).toString();
        urls.append(QUrl::fromLocalFile(path));
        paths.append(path);
    }
    auto *data = new QMimeData;
    data->setUrls(urls);
    // Editors and terminals take the paths themselves.
    data->setText(paths.join(QLatin1Char('\n')));
    return data;
}

Qt::DropActions HistoryArrayModel::supportedDragActions() const
{
    // Never a move: a file manager must not take the user's folder away.
    return Qt::CopyAction;
}
