#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QTimer>

// The folders of one watched folder whose files changed, held until they have settled: a
// folder is handed on once nothing in it has changed for kSettleMs, or kMaxWaitMs after its
// first change whatever happens, so a file written without pause cannot hold back its
// neighbours for ever. One timer, armed for the earliest folder due; nothing runs while
// nothing waits.
class SettleQueue : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 kSettleMs = 3000;
    static constexpr qint64 kMaxWaitMs = 30000;

    explicit SettleQueue(QObject *parent = nullptr);

    void add(const QByteArray &relative, qint64 delayMs = kSettleMs);
    bool isEmpty() const { return m_waiting.isEmpty(); }

Q_SIGNALS:
    void settled(const QByteArray &relative);

private:
    struct Waiting {
        qint64 first;
        qint64 due;
    };
    void arm();
    void handOn();

    QElapsedTimer m_clock;
    QTimer m_timer;
    QHash<QByteArray, Waiting> m_waiting;
};
