#include "helper/SavingsModel.h"

#include "common/BDAlias.h"
#include "platform/DistributedNotificationCenter.h"
#include "common/HistoryStore.h"
#include "common/Notifications.h"
#include "common/VTUtil.h"
#include "helper/HelperLog.h"

SavingsModel::SavingsModel(QObject *parent)
    : QObject(parent)
{
    m_flushTimer.setSingleShot(true);
    m_flushTimer.setInterval(kFlushIntervalMs);
    connect(&m_flushTimer, &QTimer::timeout, this, &SavingsModel::flush);
}

SavingsModel::~SavingsModel()
{
    flush();
}

HistoryContext *SavingsModel::context()
{
    HistoryContext *context = VTUtil::managedObjectContext();
    if (!context)
        return nullptr;
    HistoryStore *store = context->persistentStoreCoordinator();
    if (store->isStoreFileReplaced()) {
        qCWarning(lcHelper, "the history store %s was replaced; opening it again", qPrintable(store->storePath()));
        PresentableError error;
        const bool reopened = store->reopenPersistentStore(&error);
        m_pending.clear();
        Q_EMIT storeReopened();
        if (!reopened)
            return nullptr;
    }
    return context;
}

QList<HistoryRecord> SavingsModel::records(HistoryContext::Predicate predicate)
{
    HistoryContext *c = context();
    return c ? c->fetchRecords(predicate) : QList<HistoryRecord>{};
}

QByteArray SavingsModel::folderAlias(qint64 id)
{
    HistoryContext *c = context();
    return c ? c->fetchFolderAlias(id) : QByteArray();
}

qint64 SavingsModel::addFolder(const QString &folder, const QByteArray &folderAlias)
{
    HistoryContext *c = context();
    if (!c)
        return 0;
    for (const HistoryRecord &record : c->fetchRecords(HistoryContext::Predicate::All)) {
        if (record.folder == folder)
            return c->reenableRecord(record.objectID, folder, folderAlias) ? record.objectID : 0;
    }
    HistoryRecord record;
    record.folder = folder;
    record.folderAlias = folderAlias;
    record.enabled = true;
    return c->insertRecord(record);
}

QList<qint64> SavingsModel::removeFolders(const QStringList &folders)
{
    QList<qint64> removed;
    HistoryContext *c = context();
    if (!c)
        return removed;
    for (const HistoryRecord &record : c->fetchRecords(HistoryContext::Predicate::Enabled)) {
        if (folders.contains(record.folder) && c->setEnabled(record.objectID, false))
            removed.append(record.objectID);
    }
    if (!removed.isEmpty())
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::SavingsChanged));
    return removed;
}

bool SavingsModel::renameFolder(qint64 id, const QString &from, const QString &to)
{
    HistoryContext *c = context();
    const std::unique_ptr<BDAlias> alias = BDAlias::aliasWithPath(to);
    // One statement, so one transaction: the record never has the new path with the old alias.
    if (!c || !alias || !c->reenableRecord(id, to, alias->aliasData())) {
        qCWarning(lcHelper, "cannot record that \"%s\" moved to \"%s\"", qPrintable(from), qPrintable(to));
        return false;
    }
    auto *center = DistributedNotificationCenter::defaultCenter();
    center->postNotificationName(QLatin1String(Notifications::FoldersRenamed));
    if (m_pending.isEmpty())
        center->postNotificationName(QLatin1String(Notifications::SavingsChanged));
    else
        flush();
    return true;
}

void SavingsModel::setProgress(qint64 id, quint32 status, quint64 savings)
{
    m_pending.insert(id, {status, savings});
    if (!m_flushTimer.isActive())
        m_flushTimer.start();
}

void SavingsModel::flush()
{
    m_flushTimer.stop();
    if (m_pending.isEmpty())
        return;
    HistoryContext *c = context();
    const QHash<qint64, Progress> pending = std::exchange(m_pending, {});
    if (!c)
        return;
    for (auto it = pending.cbegin(); it != pending.cend(); ++it) {
        if (!c->setProgress(it.key(), it.value().status, it.value().savings))
            Q_EMIT recordVanished(it.key());
    }
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::SavingsChanged));
    Q_EMIT totalSavingsChanged(totalSavings());
}

quint64 SavingsModel::totalSavings()
{
    HistoryContext *c = context();
    quint64 total = 0;
    if (c) {
        for (quint64 savings : c->fetchSavings(HistoryContext::Predicate::All))
            total += savings;
    }
    return total;
}
