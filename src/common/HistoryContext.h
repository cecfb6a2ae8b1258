#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>

#include "common/VantorCommonExport.h"

class HistoryStore;
struct sqlite3_stmt;

// One History record as the pane reads it.
struct HistoryRecord {
    qint64 objectID = 0; // Z_PK
    QString folder;
    QByteArray folderAlias;
    quint32 status = 0;
    quint64 savings = 0;
    bool enabled = false;
};

// Reads History records through a store. Nothing is cached: every fetch reads the file, so
// the helper's writes show at the next fetch. A failed read yields nothing and logs once.
class VANTOR_COMMON_EXPORT HistoryContext
{
public:
    enum class Predicate {
        All, // listed and unlisted records
        Enabled, // "enabled == YES"
        Disabled, // "enabled == NO"
    };

    explicit HistoryContext(HistoryStore *coordinator);

    HistoryStore *persistentStoreCoordinator() const { return m_store; }
    // The pane never changes records.
    bool hasChanges() const { return false; }
    bool save() { return true; }

    // "folder", "status", "savings" and "enabled" of the matching records, in store order.
    QList<HistoryRecord> fetchRecords(Predicate predicate) const;
    // Records matching an SQL condition of the model's fetch request template.
    QList<HistoryRecord> fetchRecords(const QString &condition) const;
    // "savings" of the matching records, in store order.
    QList<quint64> fetchSavings(Predicate predicate) const;
    // "folderAlias" of every record, in store order.
    QList<QByteArray> fetchFolderAliases() const;
    // The alias record of one record; empty when it has none.
    QByteArray fetchFolderAlias(qint64 objectID) const;

    // Reads between begin and end see one snapshot of the file. Nests.
    void beginReadTransaction();
    void endReadTransaction();

    // Writing, for the helper (the pane never writes). Each write runs in a transaction of its
    // own, so a record is never left half-written; false, with one log line, when it failed.
    // The new record's id, or 0.
    qint64 insertRecord(const HistoryRecord &record);
    // Points a record at its folder again (path and alias data) and lists it.
    bool reenableRecord(qint64 objectID, const QString &folder, const QByteArray &folderAlias);
    bool setEnabled(qint64 objectID, bool enabled);
    // Status and savings together, so a reader never sees one without the other. False also
    // when the record no longer exists.
    bool setProgress(qint64 objectID, quint32 status, quint64 savings);

private:
    sqlite3_stmt *prepare(const QByteArray &sql) const;
    void finish(sqlite3_stmt *statement) const;
    // Runs one prepared statement, with bind filling its parameters, in a write transaction;
    // the number of rows it changed, or -1.
    int write(const char *sql, const std::function<void(sqlite3_stmt *)> &bind);

    HistoryStore *m_store;
    int m_readDepth = 0;
};

// Holds a read transaction for the scope.
class HistoryReadTransaction
{
public:
    explicit HistoryReadTransaction(HistoryContext *context)
        : m_context(context)
    {
        if (m_context)
            m_context->beginReadTransaction();
    }
    ~HistoryReadTransaction()
    {
        if (m_context)
            m_context->endReadTransaction();
    }
    HistoryReadTransaction(const HistoryReadTransaction &) = delete;
    HistoryReadTransaction &operator=(const HistoryReadTransaction &) = delete;

private:
    HistoryContext *m_context;
};
