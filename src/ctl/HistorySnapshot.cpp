#include "ctl/HistorySnapshot.h"

#include "common/HistoryModel.h"
#include "common/HistoryStore.h"
#include "common/VTUtil.h"
#include "platform/Bundle.h"

#include <QFile>
#include <QFileInfo>

#include <numeric>

bool HistorySnapshot::read(const QString &paneBundlePath, QString *error)
{
    const std::shared_ptr<const HistoryModel> model =
        HistoryModel::mergedModelFromBundles({Bundle::bundleWithPath(paneBundlePath)});
    if (!model) {
        *error = QStringLiteral("the Vantor pane at %1 carries no history model; reinstall Vantor").arg(paneBundlePath);
        return false;
    }
    const QString folder = VTUtil::applicationSupportFolder();
    const QString path = folder + u'/' + QLatin1String(HistoryStore::kFileName);
    // No store yet: the helper has recorded nothing, and reading must not make one.
    if (folder.isEmpty() || !QFileInfo::exists(path))
        return true;
    // The pane replaces a damaged store after telling the user; a command line only reports it.
    if (!HistoryStore::isDatabaseReadableAtPath(path)) {
        *error = QStringLiteral("Vantor Database Error: the history store %1 is damaged and cannot be read; "
                                "open Vantor's preferences to replace it with an empty one")
                     .arg(path);
        return false;
    }
    HistoryStore store(model);
    PresentableError storeError;
    if (!store.addPersistentStore(path, &storeError)) {
        *error = storeError.localizedDescription + u' ' + storeError.failureReason;
        return false;
    }
    HistoryContext context(&store);
    HistoryReadTransaction snapshot(&context);
    m_listed = context.fetchRecords(HistoryContext::Predicate::Enabled);
    const QList<quint64> unlisted = context.fetchSavings(HistoryContext::Predicate::Disabled);
    const QList<quint64> all = context.fetchSavings(HistoryContext::Predicate::All);
    // Unsigned sums wrap as the pane's do.
    m_previousSavings = std::accumulate(unlisted.cbegin(), unlisted.cend(), quint64(0));
    m_totalSavings = std::accumulate(all.cbegin(), all.cend(), quint64(0));
    return true;
}
