#include "HistoryContext.h"

#include "HistoryStore.h"

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
        qWarning("vantor: cannot read the history store: %s", sqlite3_errmsg(m_store->connection()));
        return nullptr;
    }
    return statement;
}

void HistoryContext::finish(sqlite3_stmt *statement) const
{
    const int rc = sqlite3_finalize(statement);
    if (rc != SQLITE_OK)
        qWarning("vantor: reading the history store failed: %s", sqlite3_errstr(rc));
}

QList<HistoryRecord> HistoryContext::fetchRecords(Predicate predicate) const
{
    return fetchRecords(conditionFor(predicate));
}

QList<HistoryRecord> HistoryContext::fetchRecords(const QString &condition) const
{
    QList<HistoryRecord> records;
    sqlite3_stmt *statement = prepare(select("ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED", condition));
    if (!statement)
        return records;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        HistoryRecord record;
        record.folder = columnText(statement, 0);
        record.status = static_cast<quint32>(sqlite3_column_int64(statement, 1));
        record.savings = columnUnsigned64(statement, 2);
        record.enabled = sqlite3_column_int64(statement, 3) != 0;
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

void HistoryContext::beginReadTransaction()
{
    if (m_readDepth++ == 0 && sqlite3_exec(m_store->connection(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK)
        qWarning("vantor: cannot begin reading the history store: %s", sqlite3_errmsg(m_store->connection()));
}

void HistoryContext::endReadTransaction()
{
    if (--m_readDepth == 0 && sqlite3_get_autocommit(m_store->connection()) == 0)
        sqlite3_exec(m_store->connection(), "COMMIT", nullptr, nullptr, nullptr);
}
