#include "helper/RescanSchedule.h"

#include <cstdlib>
#include <thread>

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

bool RescanSchedule::isMachineBusy()
{
    double load = 0;
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    return ::getloadavg(&load, 1) == 1 && load > double(cores);
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
