#include "prefpane/VTHistoryController.h"

#include "gui/Alerts.h"
#include "prefpane/ArrayController.h"
#include "common/BDAlias.h"
#include "common/FolderRequest.h"
#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "prefpane/HistoryArrayModel.h"
#include "common/HistoryContext.h"
#include "common/HistoryModel.h"
#include "common/HistoryStore.h"
#include "common/Notifications.h"
#include "prefpane/QFTableView.h"
#include "common/SharedInstance.h"
#include "common/VTDefaultsController.h"

#include <QApplication>
#include <QFileInfo>
#include <QHeaderView>
#include <QStyleOptionViewItem>
#include <QTimer>
#include <QUndoStack>

namespace {

QRecursiveMutex g_lock;
VTHistoryController *g_shared = nullptr;

// The refusal sheet follows the request that caused it.
constexpr int kWarningDelayMs = 10;

} // namespace

VTHistoryController *VTHistoryController::create()
{
    return SharedInstance::allocate(g_shared, g_lock, [] { return new VTHistoryController; });
}

VTHistoryController *VTHistoryController::sharedHistoryController()
{
    return SharedInstance::shared(g_shared, g_lock, [] { create(); });
}

VTHistoryController::VTHistoryController()
    : m_foldersFilter(QStringLiteral("enabled == YES"))
    , m_sortDescriptor(QStringLiteral("sortID"), true)
    , m_historyArray(new HistoryArrayModel(this))
{
    DistributedNotificationCenter::defaultCenter()->addObserver(
        this, QLatin1String(Notifications::SavingsChanged),
        [this](const DistributedNotification &notification) { savingsNeedRefreshing(notification); });
    refreshTotalSavings();
    updatePreviousSavings();
    connect(
        this, &VTHistoryController::foldersChanged, this,
        [this] { observeValueForKeyPath(QStringLiteral("folders"), this, {}, this); }, Qt::DirectConnection);
}

VTHistoryController::~VTHistoryController() = default;

void VTHistoryController::awakeFromNib(QFTableView *table)
{
    m_foldersTableView = table;
    if (!m_foldersArrayController) {
        m_foldersArrayController = new ArrayController(this);
        m_foldersArrayController->setSourceModel(m_historyArray);
        m_foldersArrayController->setFlagsForRow([this](int row, Qt::ItemFlags flags) {
            QStyleOptionViewItem cell;
            cell.state = QStyle::State_Enabled;
            tableViewWillDisplayCell(m_foldersTableView, cell, 0, row);
            flags.setFlag(Qt::ItemIsEnabled, cell.state.testFlag(QStyle::State_Enabled));
            flags.setFlag(Qt::ItemIsSelectable, tableViewShouldSelectRow(m_foldersTableView, row));
            return flags;
        });
    }
    m_foldersArrayController->setSortDescriptors({
        VTSortDescriptor(QStringLiteral("folder"), true, VTSortDescriptor::Comparison::LastPathComponent),
        VTSortDescriptor(QStringLiteral("path"), true, VTSortDescriptor::Comparison::CaseInsensitive),
        VTSortDescriptor(QStringLiteral("status"), true),
        VTSortDescriptor(QStringLiteral("savings"), true),
    });
    if (!table)
        return;
    table->setDelegate(this);
    table->setModel(m_foldersArrayController);
    table->setSelectionModel(m_foldersArrayController->selectionModel());
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setSelectionMode(QAbstractItemView::ExtendedSelection);
    // Unsorted until the user picks a column: rows stay in store order, summary last.
    table->horizontalHeader()->setSortIndicator(-1, Qt::AscendingOrder);
    table->setSortingEnabled(true);
}

QFTableView *VTHistoryController::foldersTableView() const
{
    return m_foldersTableView;
}

std::shared_ptr<const HistoryModel> VTHistoryController::managedObjectModel()
{
    // The pane's own bundle: the process's main bundle is the host's.
    if (!m_managedObjectModel) {
        m_managedObjectModel =
            HistoryModel::mergedModelFromBundles({Bundle::bundleWithIdentifier(QLatin1String(kPaneBundleIdentifier))});
    }
    return m_managedObjectModel;
}

HistoryStore *VTHistoryController::persistentStoreCoordinator()
{
    if (m_persistentStoreCoordinator || m_building)
        return m_persistentStoreCoordinator.get();
    m_building = true;
    m_persistentStoreCoordinator = HistoryStore::coordinatorWithModel(managedObjectModel(), "VTHistoryController",
                                                                      "persistentStoreCoordinator", __FILE__);
    m_building = false;
    if (m_refreshPending) {
        m_refreshPending = false;
        QTimer::singleShot(0, this, &VTHistoryController::refresh);
    }
    return m_persistentStoreCoordinator.get();
}

HistoryContext *VTHistoryController::managedObjectContext()
{
    if (m_managedObjectContext)
        return m_managedObjectContext.get();
    if (HistoryStore *coordinator = persistentStoreCoordinator()) {
        m_managedObjectContext = std::make_unique<HistoryContext>(coordinator);
        m_undoManager = new QUndoStack(this);
        return m_managedObjectContext.get();
    }
    if (!m_building)
        HistoryStore::presentError(HistoryStore::initializationError());
    return nullptr;
}

QVariantMap VTHistoryController::historyEntryFor(const HistoryRecord *record) const
{
    return record ? historyRowFor(*record).dictionary() : QVariantMap();
}

HistoryRow VTHistoryController::historyRowFor(const HistoryRecord &record)
{
    HistoryRow row;
    row.setValue(HistoryRow::SortID, 0);
    row.setValue(HistoryRow::Folder, record.folder);
    row.setValue(HistoryRow::Path, record.folder);
    row.setValue(HistoryRow::Status, record.status);
    row.setValue(HistoryRow::Savings, record.savings);
    row.setValue(HistoryRow::Enabled, record.enabled);
    return row;
}

void VTHistoryController::readHistory()
{
    QList<HistoryRow> rows;
    // The context itself, not its accessor: reading never builds the stack.
    if (m_managedObjectContext) {
        const QList<HistoryRecord> records = m_managedObjectContext->fetchRecords(HistoryContext::Predicate::Enabled);
        rows.reserve(records.size());
        for (const HistoryRecord &record : records)
            rows.append(historyRowFor(record));
    }
    m_historyArray->setRows(rows);
}

QList<QByteArray> VTHistoryController::folderAliases()
{
    // Like readHistory, a read path that never builds the stack (nor shows its errors).
    return m_managedObjectContext ? m_managedObjectContext->fetchFolderAliases() : QList<QByteArray>();
}

std::optional<QStringList> VTHistoryController::folders()
{
    const QList<QByteArray> aliases = folderAliases();
    if (aliases.isEmpty())
        return std::nullopt;
    QStringList paths;
    for (const QByteArray &data : aliases) {
        const std::unique_ptr<BDAlias> alias = BDAlias::aliasWithData(data);
        QString path = alias ? alias->fullPath() : QString();
        if (path.isEmpty() && alias)
            path = alias->aliasInfo().value_or(QVariantMap()).value(QStringLiteral("pathString")).toString();
        paths.append(path);
    }
    return paths;
}

void VTHistoryController::verifyAliases()
{
    QList<QByteArray> aliases = folderAliases();
    for (QByteArray &data : aliases) {
        const std::unique_ptr<BDAlias> alias = BDAlias::aliasWithData(data);
        if (!alias || !alias->fullPath().isEmpty())
            continue;
        const QString recorded =
            alias->aliasInfo().value_or(QVariantMap()).value(QStringLiteral("pathString")).toString();
        if (recorded.isEmpty() || !QFileInfo::exists(recorded))
            continue;
        if (const std::unique_ptr<BDAlias> renewed = BDAlias::aliasWithPath(recorded))
            data = renewed->aliasData();
    }
    // The working copy is dropped: the helper owns the records.
}

void VTHistoryController::addFolders(const QStringList &paths)
{
    QStringList folders = paths;
    const bool filtered = FolderRequest::removeOtherVolumes(&folders);
    if (!folders.isEmpty()) {
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::Folders), {{QLatin1String(Notifications::FoldersToAddKey), folders}});
    }
    if (filtered)
        QTimer::singleShot(kWarningDelayMs, this, &VTHistoryController::warnAboutRemovedFolders);
}

void VTHistoryController::removeFolders()
{
    if (!m_foldersArrayController)
        return;
    const QList<QVariantMap> selected = m_foldersArrayController->selectedObjects();
    if (selected.isEmpty())
        return;
    QStringList folders;
    for (const QVariantMap &row : selected)
        folders.append(row.value(QStringLiteral("folder")).toString());
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::Folders), {{QLatin1String(Notifications::FoldersToRemoveKey), folders}});
    // The rows stay until the helper has acted and the list is read again.
    m_foldersArrayController->setSelectionIndexes({});
    if (m_foldersTableView)
        m_foldersTableView->clearSelection();
}

void VTHistoryController::warnAboutRemovedFolders()
{
    Alerts::shared()->beginSheet(
        QApplication::activeWindow(),
        {QStringLiteral("Filtered out folders"), FolderRequest::otherVolumesMessage(), {QStringLiteral("OK")}},
        [this](int returnCode) { alertDidEnd(nullptr, returnCode, nullptr); });
}

void VTHistoryController::alertDidEnd(QWidget *, int, void *)
{
}

void VTHistoryController::markFoldersAsChanged()
{
    Q_EMIT foldersChanged();
}

void VTHistoryController::saveFoldersAndMarkAsChanged()
{
    // Saves nothing: the helper owns the records.
    Q_EMIT foldersChanged();
}

void VTHistoryController::tableViewWillDisplayCell(QTableView *, QStyleOptionViewItem &cell, int, int row)
{
    const bool summaryRow = m_previousSavings != 0 && row + 1 == m_historyArray->rowCount();
    cell.state.setFlag(QStyle::State_Enabled, !summaryRow);
    cell.checkState = VTDefaultsController::sharedDefaultsController()->helperActive() ? Qt::Checked : Qt::Unchecked;
}

bool VTHistoryController::tableViewShouldSelectRow(QTableView *, int row) const
{
    // The summary row can never be selected, and so never be removed.
    return m_previousSavings == 0 || row + 1 != m_historyArray->rowCount();
}

void VTHistoryController::tableviewRemoveSelectedRowIndexes(QTableView *, const QList<int> &)
{
    // The array controller's selection counts, not the indexes given.
    removeFolders();
}

QUndoStack *VTHistoryController::windowWillReturnUndoManager(QWidget *)
{
    managedObjectContext();
    return m_undoManager;
}

void VTHistoryController::contextChanged(const DistributedNotification &)
{
}
