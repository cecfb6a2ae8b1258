#include "common/HistoryContext.h"
#include "common/CommonLog.h"

#include "common/HistoryStore.h"

#include <sqlite3.h>

namespace {

QString conditionFor(HistoryContext::Predicate predicate)
{
    switch (predicate) {
    case HistoryContext::Predicate::All:
        break;
    case HistoryContext::Predicate::Enabled:
        return QStringLiteral("ZENABLED = 1");
    case HistoryContext::Predicate::Disabled:
        return QStringLiteral("ZENABLED = 0");
    }
    return {};
}

QByteArray select(const char *columns, const QString &condition)
{
    QByteArray sql = QByteArray("SELECT ") + columns + " FROM ZHISTORY";
    if (!condition.isEmpty())
        sql += " WHERE " + condition.toUtf8();
    return sql;
}

QString columnText(sqlite3_stmt *statement, int column)
{
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return QString::fromUtf8(text, sqlite3_column_bytes(statement, column));
}

// Savings are stored as signed 64-bit integers and read back as unsigned.
quint64 columnUnsigned64(sqlite3_stmt *statement, int column)
{
    return static_cast<quint64>(sqlite3_column_int64(statement, column));
}

} // namespace

HistoryContext::HistoryContext(HistoryStore *coordinator)
    : m_store(coordinator)
{
}

sqlite3_stmt *HistoryContext::prepare(const QByteArray &sql) const
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(m_store->connection(), sql.constData(), int(sql.size()), &statement, nullptr) != SQLITE_OK) {
        qCWarning(lcCommon, "cannot read the history store: %s", sqlite3_errmsg(m_store->connection()));
        return nullptr;
    }
    return statement;
}

void HistoryContext::finish(sqlite3_stmt *statement) const
{
    const int rc = sqlite3_finalize(statement);
    if (rc != SQLITE_OK)
        qCWarning(lcCommon, "reading the history store failed: %s", sqlite3_errstr(rc));
}

QList<HistoryRecord> HistoryContext::fetchRecords(Predicate predicate) const
{
    return fetchRecords(conditionFor(predicate));
}

QList<HistoryRecord> HistoryContext::fetchRecords(const QString &condition) const
{
    QList<HistoryRecord> records;
    sqlite3_stmt *statement = prepare(select("Z_PK, ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED", condition));
    if (!statement)
        return records;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        HistoryRecord record;
        record.objectID = sqlite3_column_int64(statement, 0);
        record.folder = columnText(statement, 1);
        record.status = static_cast<quint32>(sqlite3_column_int64(statement, 2));
        record.savings = columnUnsigned64(statement, 3);
        record.enabled = sqlite3_column_int64(statement, 4) != 0;
        records.append(std::move(record));
    }
    finish(statement);
    return records;
}

QList<quint64> HistoryContext::fetchSavings(Predicate predicate) const
{
    QList<quint64> savings;
    sqlite3_stmt *statement = prepare(select("ZSAVINGS", conditionFor(predicate)));
    if (!statement)
        return savings;
    while (sqlite3_step(statement) == SQLITE_ROW)
        savings.append(columnUnsigned64(statement, 0));
    finish(statement);
    return savings;
}

QList<QByteArray> HistoryContext::fetchFolderAliases() const
{
    QList<QByteArray> aliases;
    sqlite3_stmt *statement = prepare(select("ZFOLDERALIAS", {}));
    if (!statement)
        return aliases;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement, 0));
        aliases.append(QByteArray(bytes, sqlite3_column_bytes(statement, 0)));
    }
    finish(statement);
    return aliases;
}

QByteArray HistoryContext::fetchFolderAlias(qint64 objectID) const
{
    QByteArray alias;
    sqlite3_stmt *statement = prepare(select("ZFOLDERALIAS", QStringLiteral("Z_PK = %1").arg(objectID)));
    if (!statement)
        return alias;
    if (sqlite3_step(statement) == SQLITE_ROW)
        alias = QByteArray(static_cast<const char *>(sqlite3_column_blob(statement, 0)),
                           sqlite3_column_bytes(statement, 0));
    finish(statement);
    return alias;
}

void HistoryContext::beginReadTransaction()
{
    if (m_readDepth++ == 0 && sqlite3_exec(m_store->connection(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK)
        qCWarning(lcCommon, "cannot begin reading the history store: %s", sqlite3_errmsg(m_store->connection()));
}

void HistoryContext::endReadTransaction()
{
    if (--m_readDepth == 0 && sqlite3_get_autocommit(m_store->connection()) == 0)
        sqlite3_exec(m_store->connection(), "COMMIT", nullptr, nullptr, nullptr);
}

int HistoryContext::write(const char *sql, const std::function<void(sqlite3_stmt *)> &bind)
{
    sqlite3 *db = m_store->connection();
    // IMMEDIATE takes the write lock up front, so the busy timeout covers the whole write.
    if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
        qCWarning(lcCommon, "cannot write the history store: %s", sqlite3_errmsg(db));
        return -1;
    }
    sqlite3_stmt *statement = prepare(sql);
    int changed = -1;
    if (statement) {
        bind(statement);
        if (sqlite3_step(statement) == SQLITE_DONE)
            changed = sqlite3_changes(db);
        else
            qCWarning(lcCommon, "writing the history store failed: %s", sqlite3_errmsg(db));
        sqlite3_finalize(statement);
    }
    if (changed >= 0 && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
        qCWarning(lcCommon, "cannot commit to the history store: %s", sqlite3_errmsg(db));
        changed = -1;
    }
    if (changed < 0)
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return changed;
}

qint64 HistoryContext::insertRecord(const HistoryRecord &record)
{
    const QByteArray folder = record.folder.toUtf8();
    const int changed = write("INSERT INTO ZHISTORY (ZFOLDER, ZFOLDERALIAS, ZSTATUS, ZSAVINGS, ZENABLED) "
                              "VALUES (?1, ?2, ?3, ?4, ?5)",
                              [&](sqlite3_stmt *s) {
                                  sqlite3_bind_text(s, 1, folder.constData(), int(folder.size()), SQLITE_TRANSIENT);
                                  sqlite3_bind_blob(s, 2, record.folderAlias.constData(),
                                                    int(record.folderAlias.size()), SQLITE_TRANSIENT);
                                  sqlite3_bind_int64(s, 3, record.status);
                                  sqlite3_bind_int64(s, 4, static_cast<qint64>(record.savings));
                                  sqlite3_bind_int(s, 5, record.enabled ? 1 : 0);
                              });
    return changed == 1 ? sqlite3_last_insert_rowid(m_store->connection()) : 0;
}

bool HistoryContext::reenableRecord(qint64 objectID, const QString &folder, const QByteArray &folderAlias)
{
    const QByteArray path = folder.toUtf8();
    return write("UPDATE ZHISTORY SET ZFOLDER = ?2, ZFOLDERALIAS = ?3, ZENABLED = 1 WHERE Z_PK = ?1",
                 [&](sqlite3_stmt *s) {
                     sqlite3_bind_int64(s, 1, objectID);
                     sqlite3_bind_text(s, 2, path.constData(), int(path.size()), SQLITE_TRANSIENT);
                     sqlite3_bind_blob(s, 3, folderAlias.constData(), int(folderAlias.size()), SQLITE_TRANSIENT);
                 })
        == 1;
}

bool HistoryContext::setEnabled(qint64 objectID, bool enabled)
{
    return write("UPDATE ZHISTORY SET ZENABLED = ?2 WHERE Z_PK = ?1",
                 [&](sqlite3_stmt *s) {
                     sqlite3_bind_int64(s, 1, objectID);
                     sqlite3_bind_int(s, 2, enabled ? 1 : 0);
                 })
        == 1;
}

bool HistoryContext::setProgress(qint64 objectID, quint32 status, quint64 savings)
{
    return write("UPDATE ZHISTORY SET ZSTATUS = ?2, ZSAVINGS = ?3 WHERE Z_PK = ?1",
                 [&](sqlite3_stmt *s) {
                     sqlite3_bind_int64(s, 1, objectID);
                     sqlite3_bind_int64(s, 2, status);
                     sqlite3_bind_int64(s, 3, static_cast<qint64>(savings));
                 })
        == 1;
}
