#pragma once

#include <QObject>
#include <QString>

class CompressionEngine;

// Answers "Status" on the session bus (HelperIdentity::statusPath() and statusInterface()), so
// that vantorctl, or anybody, can ask whether the helper is working, or waiting and why.
class HelperStatus : public QObject
{
    Q_OBJECT
public:
    explicit HelperStatus(const CompressionEngine *engine, QObject *parent = nullptr);

    // False, with the reason logged, when the object cannot be put on the bus.
    bool publish();

public Q_SLOTS:
    // "idle", "working" or "waiting"; why, as a word; and the same in a few words for people.
    Q_SCRIPTABLE QString Status(QString &reason, QString &description) const;

private:
    const CompressionEngine *m_engine;
};
