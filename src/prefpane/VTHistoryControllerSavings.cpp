// The savings totals and the summary row of VTHistoryController.
#include "prefpane/VTHistoryController.h"

#include "prefpane/ArrayController.h"
#include "prefpane/HistoryArrayModel.h"
#include "common/HistoryContext.h"

QVariantMap VTHistoryController::historyEntryForSavings(quint64 savings) const
{
    return {
        {QStringLiteral("sortID"), 1},
        {QStringLiteral("folder"), QStringLiteral("Other")},
        {QStringLiteral("path"), QStringLiteral("Previous savings")},
        {QStringLiteral("status"), 100},
        {QStringLiteral("savings"), savings},
    };
}

void VTHistoryController::refreshTotalSavings()
{
    HistoryContext *context = managedObjectContext();
    const QList<quint64> savings = context ? context->fetchSavings(HistoryContext::Predicate::All) : QList<quint64>();
    m_totalSavings = 0;
    for (quint64 amount : savings)
        m_totalSavings += amount; // modulo 2^64
    Q_EMIT totalSavingsChanged();
}

void VTHistoryController::updatePreviousSavings()
{
    QList<int> selection;
    qsizetype arrangedCount = -1;
    if (m_foldersArrayController) {
        selection = m_foldersArrayController->selectionIndexes();
        arrangedCount = m_foldersArrayController->rowCount();
    }

    readHistory();

    m_previousSavings = 0;
    if (m_managedObjectContext) {
        for (quint64 amount : m_managedObjectContext->fetchSavings(HistoryContext::Predicate::Disabled))
            m_previousSavings += amount;
    }
    // Unlisted records that saved nothing give no summary row.
    if (m_previousSavings != 0)
        m_historyArray->appendRow(historyEntryForSavings(m_previousSavings));

    // Only the count decides whether the same positions are selected again.
    if (m_foldersArrayController && m_historyArray->rowCount() == arrangedCount)
        m_foldersArrayController->setSelectionIndexes(selection);
}

void VTHistoryController::savingsNeedRefreshing(const DistributedNotification &)
{
    if (m_building) {
        m_refreshPending = true;
        return;
    }
    // A burst of notifications would otherwise run one full refresh each, and painting waits
    // behind them all. The queued refresh runs after every notification that has already
    // arrived, so the last one is always followed by a refresh.
    if (m_refreshQueued)
        return;
    m_refreshQueued = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_refreshQueued = false;
            refresh();
        },
        Qt::QueuedConnection);
}

void VTHistoryController::refresh()
{
    // One snapshot of the store, so the totals and the rows agree while the helper writes.
    // Nothing is cached between refreshes, so every fetch sees the helper's latest records.
    HistoryReadTransaction transaction(managedObjectContext());
    refreshTotalSavings();
    updatePreviousSavings();
}

void VTHistoryController::observeValueForKeyPath(const QString &keyPath, QObject *, const QVariantMap &, void *context)
{
    if (context == this && keyPath == QLatin1String("folders"))
        updatePreviousSavings();
}
