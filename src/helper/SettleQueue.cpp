#include "helper/SettleQueue.h"

#include <limits>

SettleQueue::SettleQueue(QObject *parent)
    : QObject(parent)
{
    m_clock.start();
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &SettleQueue::handOn);
}

void SettleQueue::add(const QByteArray &relative, qint64 delayMs)
{
    const qint64 now = m_clock.elapsed();
    auto it = m_waiting.find(relative);
    if (it == m_waiting.end())
        it = m_waiting.insert(relative, {now, 0});
    it->due = std::min(now + delayMs, it->first + std::max(delayMs, kMaxWaitMs));
    arm();
}

void SettleQueue::arm()
{
    if (m_waiting.isEmpty()) {
        m_timer.stop();
        return;
    }
    qint64 earliest = std::numeric_limits<qint64>::max();
    for (const Waiting &waiting : std::as_const(m_waiting))
        earliest = std::min(earliest, waiting.due);
    m_timer.start(int(std::clamp<qint64>(earliest - m_clock.elapsed(), 0, kMaxWaitMs)));
}

void SettleQueue::handOn()
{
    const qint64 now = m_clock.elapsed();
    QList<QByteArray> due;
    for (auto it = m_waiting.begin(); it != m_waiting.end();) {
        if (it->due <= now) {
            due.append(it.key());
            it = m_waiting.erase(it);
        } else {
            ++it;
        }
    }
    arm();
    for (const QByteArray &relative : std::as_const(due))
        Q_EMIT settled(relative);
}
