#include "HistoryArrayModel.h"

#include "VTSizeToPrettySizeTransformer.h"

#include <QFileInfo>
#include <QMimeData>
#include <QUrl>

#include <set>

HistoryArrayModel::HistoryArrayModel(QObject *parent)
    : QAbstractTableModel(parent)
{
}

QStringList HistoryArrayModel::columnKeys()
{
    return {QStringLiteral("folder"), QStringLiteral("path"), QStringLiteral("status"), QStringLiteral("savings")};
}

void HistoryArrayModel::setRows(const QList<QVariantMap> &rows)
{
    beginResetModel();
    m_rows = rows;
    endResetModel();
}

void HistoryArrayModel::appendRow(const QVariantMap &row)
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
    return parent.isValid() ? 0 : int(columnKeys().size());
}

QVariant HistoryArrayModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows.size() || index.column() >= columnCount())
        return {};
    const QVariantMap &row = m_rows.at(index.row());
    const QString key = columnKeys().at(index.column());
    const QVariant value = row.value(key);
    switch (role) {
    case RowRole:
        return row;
    case ValueRole:
        return value;
    case Qt::DisplayRole:
        // Plain texts until the table's own cells draw the rows.
        if (key == QLatin1String("folder")) {
            const bool isFolderRow = row.value(QStringLiteral("sortID")).toInt() == 0;
            return isFolderRow ? QFileInfo(value.toString()).fileName() : value.toString();
        }
        if (key == QLatin1String("status"))
            return QStringLiteral("%1%").arg(qMin(value.toUInt(), 100u));
        if (key == QLatin1String("savings"))
            return VTSizeToPrettySizeTransformer().transformedValue(value);
        return value;
    case Qt::ToolTipRole:
        return row.value(QStringLiteral("path"));
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
    if (index.isValid() && index.row() < m_rows.size()
        && m_rows.at(index.row()).value(QStringLiteral("sortID")).toInt() == 0)
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
        const QString path = m_rows.at(row).value(QStringLiteral("path")).toString();
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
