#include "helper/RescanSchedule.h"

RescanSchedule::RescanSchedule(std::function<bool()> busy, int intervalMs, int deferMs, QObject *parent)
    : QObject(parent)
    , m_busy(std::move(busy))
    , m_intervalMs(intervalMs)
    , m_deferMs(deferMs)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &RescanSchedule::tick);
    m_timer.start(m_intervalMs);
}

void RescanSchedule::tick()
{
    if (m_busy()) {
        m_timer.start(m_deferMs);
        return;
    }
    m_timer.start(m_intervalMs);
    Q_EMIT due();
}
