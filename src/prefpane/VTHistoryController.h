#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantMap>

#include <memory>
#include <optional>

#include "prefpane/QFTableView.h"
#include "prefpane/VTSortDescriptor.h"

class ArrayController;
class HistoryArrayModel;
class HistoryRow;
class HistoryContext;
class HistoryModel;
class HistoryStore;
class QStyleOptionViewItem;
class QTableView;
class QUndoStack;
class QWidget;
struct DistributedNotification;
struct HistoryRecord;

// The pane's list of watched folders: reads the History records the helper writes, shows the
// listed ones as the folder table's rows with a summary row for the rest, keeps the savings
// totals, and asks the helper (by notification) to add or drop folders. It never writes a
// record. Created with the interface, it lives until the process ends.
class VTHistoryController : public QObject, public QFTableViewDelegate
{
    Q_OBJECT
    Q_PROPERTY(quint64 totalSavings READ totalSavings NOTIFY totalSavingsChanged)

public:
    static constexpr const char *kPaneBundleIdentifier = "com.quillfen.Vantor";

    static VTHistoryController *sharedHistoryController();
    // The first call makes the shared instance; every later call returns null.
    static VTHistoryController *create();
    ~VTHistoryController() override;

    // Connects the outlets once the interface exists: the table shows the arranged rows and
    // sorts by the four column descriptors.
    void awakeFromNib(QFTableView *table);

    // The history stack, built from the pane bundle's model on first demand.
    std::shared_ptr<const HistoryModel> managedObjectModel();
    HistoryStore *persistentStoreCoordinator();
    HistoryContext *managedObjectContext();

    QVariantMap historyEntryFor(const HistoryRecord *record) const;
    // The same entry as a table row, without building a dictionary.
    static HistoryRow historyRowFor(const HistoryRecord &record);
    void readHistory();
    // Alias data of every record, listed or not.
    QList<QByteArray> folderAliases();
    // Present path of every record (else the path its alias recorded); nullopt with no records.
    std::optional<QStringList> folders();
    // Re-resolves the aliases, renewing stale ones in a working copy only: no lasting effect.
    void verifyAliases();
    void addFolders(const QStringList &paths);
    void removeFolders();
    void warnAboutRemovedFolders();
    void alertDidEnd(QWidget *alert, int returnCode, void *contextInfo);
    void markFoldersAsChanged();
    void saveFoldersAndMarkAsChanged();

    // Table delegate.
    void tableViewWillDisplayCell(QTableView *tableView, QStyleOptionViewItem &cell, int column, int row) override;
    bool tableViewShouldSelectRow(QTableView *tableView, int row) const;
    void tableviewRemoveSelectedRowIndexes(QTableView *tableView, const QList<int> &rowIndexes) override;
    // Window delegate: the window's undo acts on the history context.
    QUndoStack *windowWillReturnUndoManager(QWidget *window);
    void contextChanged(const DistributedNotification &notification);

    // Savings.
    QVariantMap historyEntryForSavings(quint64 savings) const;
    void updatePreviousSavings();
    void refreshTotalSavings();
    void savingsNeedRefreshing(const DistributedNotification &notification);
    void observeValueForKeyPath(const QString &keyPath, QObject *object, const QVariantMap &change, void *context);

    quint64 totalSavings() const { return m_totalSavings; }
    quint64 previousSavings() const { return m_previousSavings; }
    HistoryArrayModel *historyArray() const { return m_historyArray; }
    ArrayController *foldersArrayController() const { return m_foldersArrayController; }
    QFTableView *foldersTableView() const;
    // Offered to the interface, not applied: the summary row has no "enabled".
    QString foldersFilter() const { return m_foldersFilter; }
    VTSortDescriptor sortDescriptor() const { return m_sortDescriptor; }

Q_SIGNALS:
    void totalSavingsChanged();
    // The "folders" announcement.
    void foldersChanged();

private:
    VTHistoryController();
    void refresh();

    std::unique_ptr<HistoryStore> m_persistentStoreCoordinator;
    std::shared_ptr<const HistoryModel> m_managedObjectModel;
    std::unique_ptr<HistoryContext> m_managedObjectContext;
    QPointer<QFTableView> m_foldersTableView;
    ArrayController *m_foldersArrayController = nullptr;
    QString m_foldersFilter;
    VTSortDescriptor m_sortDescriptor;
    quint64 m_totalSavings = 0;
    quint64 m_previousSavings = 0;
    HistoryArrayModel *m_historyArray = nullptr;

    QUndoStack *m_undoManager = nullptr;
    // An alert while the stack is built runs a nested event loop: no second build, and a
    // refresh asked for meanwhile runs once the build is over.
    bool m_building = false;
    bool m_refreshPending = false;
    // A refresh is queued behind the notifications that are waiting; they all share it.
    bool m_refreshQueued = false;
};
