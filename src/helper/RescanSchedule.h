#pragma once

#include <QObject>
#include <QTimer>

#include <functional>

// When the occasional rescan of every watched folder runs: every few hours, once the helper
// has nothing else to do (how fast it then goes, the pacing decides, as for all its work). A
// rescan due while the helper is busy waits for the next, shorter turn of the same timer.
// Nothing else wakes the helper: one single-shot timer, never a loop.
class RescanSchedule : public QObject
{
    Q_OBJECT
public:
    static constexpr int kIntervalMs = 4 * 60 * 60 * 1000;
    static constexpr int kDeferMs = 10 * 60 * 1000;

    // busy: whether the rescan should wait (work queued or waiting).
    RescanSchedule(std::function<bool()> busy, int intervalMs = kIntervalMs, int deferMs = kDeferMs,
                   QObject *parent = nullptr);

Q_SIGNALS:
    void due();

private:
    void tick();

    std::function<bool()> m_busy;
    int m_intervalMs;
    int m_deferMs;
    QTimer m_timer;
};
