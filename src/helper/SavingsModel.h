#pragma once

#include <QHash>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include "common/HistoryContext.h"

// The helper's side of the History records, through VTUtil's store stack: folders added and
// removed, and per-folder progress and savings. Progress arrives often; it is written in one
// batch at most a few times a second, and each batch is announced with "vantorSavingsChanged".
// The store is reopened when its file has been replaced under the helper.
class SavingsModel : public QObject
{
    Q_OBJECT
public:
    static constexpr int kFlushIntervalMs = 250;

    explicit SavingsModel(QObject *parent = nullptr);
    ~SavingsModel() override;

    // Null when there is no store; the reason has been logged.
    HistoryContext *context();

    QList<HistoryRecord> records(HistoryContext::Predicate predicate);
    QByteArray folderAlias(qint64 id);
    // The record of the folder, made listed, or a new one; 0 on failure.
    qint64 addFolder(const QString &folder, const QByteArray &folderAlias);
    // Unlists the records of these folders (their savings stay); returns their ids.
    QList<qint64> removeFolders(const QStringList &folders);

    // The folder of the record moved from one path to the other: its path and alias record
    // change together, then "vantorFoldersRenamed" and "vantorSavingsChanged" are posted.
    bool renameFolder(qint64 id, const QString &from, const QString &to);

    // Kept until the next flush; a later call for the same record replaces it.
    void setProgress(qint64 id, quint32 status, quint64 savings);
    void flush();

    quint64 totalSavings();

Q_SIGNALS:
    void totalSavingsChanged(quint64 total);
    // The store file was replaced and opened again: every record id known before is void.
    void storeReopened();
    // A progress write found its record gone.
    void recordVanished(qint64 id);

private:
    struct Progress {
        quint32 status;
        quint64 savings;
    };
    QHash<qint64, Progress> m_pending;
    QTimer m_flushTimer;
};
