#pragma once

#include <QList>
#include <QString>

#include "common/HistoryContext.h"

// The History records as the pane lists them, read once and read-only: the listed folders,
// the savings of folders that left the list, and the total, all from one snapshot of
// "history.db" so they agree. A missing store is an empty one; nothing is created or repaired.
class HistorySnapshot
{
public:
    // Reads the store of the product folder with the pane bundle's model. False with one line
    // in *error when the model is missing or the store damaged or unreadable.
    bool read(const QString &paneBundlePath, QString *error);

    QList<HistoryRecord> listed() const { return m_listed; }
    quint64 previousSavings() const { return m_previousSavings; }
    quint64 totalSavings() const { return m_totalSavings; }

private:
    QList<HistoryRecord> m_listed;
    quint64 m_previousSavings = 0;
    quint64 m_totalSavings = 0;
};
