#include "helper/FolderRequests.h"

#include "common/BDAlias.h"
#include "helper/CompressionEngine.h"
#include "common/Notifications.h"
#include "helper/SavingsModel.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

FolderRequests::FolderRequests(SavingsModel *savings, CompressionEngine *engine, QObject *parent)
    : QObject(parent)
    , m_savings(savings)
    , m_engine(engine)
{
}

QString FolderRequests::handle(const QVariantMap &userInfo)
{
    const QString addKey = QLatin1String(Notifications::FoldersToAddKey);
    const QString removeKey = QLatin1String(Notifications::FoldersToRemoveKey);
    if (userInfo.contains(addKey))
        return addFolders(userInfo.value(addKey).toStringList());
    if (userInfo.contains(removeKey))
        return removeFolders(userInfo.value(removeKey).toStringList());
    return QStringLiteral("neither %1 nor %2; ignored").arg(addKey, removeKey);
}

QString FolderRequests::addFolders(const QStringList &folders)
{
    QStringList done;
    QSet<QString> seen;
    qsizetype repeated = 0;
    for (const QString &given : folders) {
        // One record per folder, however it was spelled; and one piece of work (and one word
        // to the user) however often a request names it.
        const QString folder = QDir::cleanPath(given);
        if (seen.contains(folder)) {
            ++repeated;
            continue;
        }
        seen.insert(folder);
        // Lone surrogates and NULs name no file: the file system and the store would each
        // keep some other string, and the record would never be found by this one again.
        if (folder.contains(QChar(0)) || QString::fromUtf8(folder.toUtf8()) != folder) {
            done.append(QStringLiteral("%1 is not a path the file system can hold, skipped").arg(given));
            continue;
        }
        if (!QDir::isAbsolutePath(folder) || !QFileInfo(folder).isDir()) {
            done.append(QStringLiteral("%1 is not a folder, skipped").arg(given));
            continue;
        }
        BDAlias::Error error;
        const std::unique_ptr<BDAlias> alias = BDAlias::aliasWithPath(folder, &error);
        if (!alias) {
            done.append(QStringLiteral("%1: no alias (%2), skipped").arg(folder).arg(error.code));
            continue;
        }
        const qint64 id = m_savings->addFolder(folder, alias->aliasData());
        if (id == 0) {
            done.append(QStringLiteral("%1: the history store could not take it").arg(folder));
            continue;
        }
        m_engine->addFolder(id, folder);
        done.append(QStringLiteral("%1 watched (record %2)").arg(folder).arg(id));
    }
    if (repeated > 0)
        done.append(QStringLiteral("%1 repeated folders ignored").arg(repeated));
    return done.join(QStringLiteral("; "));
}

QString FolderRequests::removeFolders(const QStringList &folders)
{
    const QList<qint64> removed = m_savings->removeFolders(folders);
    for (qint64 id : removed)
        m_engine->removeFolder(id);
    return QStringLiteral("%1 of %2 folders no longer watched").arg(removed.size()).arg(folders.size());
}
