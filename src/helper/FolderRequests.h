#pragma once

#include <QObject>
#include <QVariantMap>

class CompressionEngine;
class SavingsModel;

// Acts on the pane's "com.quillfen.vantor.folders": "foldersToAdd" makes (or lists again) a
// History record per folder and starts its compression; "foldersToRemove" unlists the
// folders' records, keeping their savings, and stops their work.
class FolderRequests : public QObject
{
    Q_OBJECT
public:
    FolderRequests(SavingsModel *savings, CompressionEngine *engine, QObject *parent = nullptr);

    // Returns what was done, for the helper's log.
    QString handle(const QVariantMap &userInfo);

private:
    QString addFolders(const QStringList &folders);
    QString removeFolders(const QStringList &folders);

    SavingsModel *m_savings;
    CompressionEngine *m_engine;
};
