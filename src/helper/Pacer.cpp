#include "helper/Pacer.h"

#include <algorithm>

int Pacer::Pace::restMs(qint64 callMs) const
{
    if (duty >= 1.0)
        return 0;
    // At least a little: a call quicker than the clock still had the kernel's attention.
    const double rest = double(std::max<qint64>(callMs, 1)) * (1.0 - duty) / duty;
    return int(std::clamp(rest, 1.0, 2000.0));
}

Pacer::Pacer(int processors)
    : m_processors(std::max(processors, 1))
{
}

void Pacer::setPower(bool onBattery, bool powerSaver)
{
    m_onBattery = onBattery;
    m_powerSaver = powerSaver;
}

Pacer::Hold Pacer::hold() const
{
    if (!m_switchedOn)
        return Hold::SwitchedOff;
    if (m_onBattery)
        return Hold::Battery;
    if (m_powerSaver)
        return Hold::PowerSaver;
    return Hold::None;
}

void Pacer::restart()
{
    m_samples.clear();
    m_load = Load::Sharing;
    m_decided = false;
}

bool Pacer::sample(const Sample &sample)
{
    if (!m_samples.isEmpty() && sample.ms - m_samples.last().ms < kMinGapMs)
        return false;
    m_samples.append(sample);
    while (m_samples.size() > 2 && sample.ms - m_samples.at(1).ms >= kWindowMs)
        m_samples.removeFirst();
    if (m_samples.size() < 2)
        return false;
    const Sample &from = m_samples.first();
    const double seconds = double(sample.ms - from.ms) / 1000.0;
    // btrfs compresses in kernel workers, so what the helper hands over never shows as time in
    // user programs: all of that beyond the helper's own is somebody else's.
    const quint64 userTicks = sample.userTicks - from.userTicks;
    const quint64 ownTicks = std::min(sample.ownUserTicks - from.ownUserTicks, userTicks);
    const double others = double(userTicks - ownTicks) / double(std::max<qint64>(sample.ticksPerSecond, 1)) / seconds;

    const Load before = m_load;
    const bool decided = m_decided;
    if (others >= (m_load == Load::Quiet ? kBusyAbove : kQuietBelow)) {
        m_load = others > double(m_processors) - kQuietBelow - kSharingDuty ? Load::Crowded : Load::Sharing;
        m_decided = true;
    } else if (sample.ms - from.ms >= kFirstWindowMs) {
        m_load = Load::Quiet;
        m_decided = true;
    }
    return m_load != before || m_decided != decided;
}

Pacer::Pace Pacer::pace() const
{
    if (hold() != Hold::None)
        return {false, 0, 0.0, 0};
    switch (m_load) {
    case Load::Quiet:
        return {true, kQuietStep, 1.0, m_processors};
    case Load::Sharing:
        return {true, kSharingStep, kSharingDuty, 1};
    case Load::Crowded:
        break;
    }
    return {true, kSharingStep, kCrowdedDuty, 1};
}
