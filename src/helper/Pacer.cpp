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
    m_hasSample = false;
    m_quietSinceMs = -1;
    m_load = Load::Sharing;
}

bool Pacer::sample(const Sample &sample)
{
    if (!m_hasSample || sample.ms < m_last.ms) {
        m_last = sample;
        m_hasSample = true;
        return false;
    }
    const qint64 windowMs = sample.ms - m_last.ms;
    if (windowMs < kMinWindowMs)
        return false;
    const double windowUs = double(windowMs) * 1000.0;
    // btrfs compresses in kernel workers, so what the helper hands over never shows as time in
    // user programs: all of that beyond the helper's own is somebody else's.
    const double userTicks = double(sample.userTicks - m_last.userTicks)
        - double(std::min(sample.ownUserTicks - m_last.ownUserTicks, sample.userTicks - m_last.userTicks));
    const double others = userTicks / double(std::max<qint64>(sample.ticksPerSecond, 1)) / (double(windowMs) / 1000.0);
    const double cpuStall = double(sample.cpuStallUs - m_last.cpuStallUs) / windowUs;
    m_last = sample;

    const Load before = m_load;
    if (others < kQuietBelow) {
        if (m_quietSinceMs < 0)
            m_quietSinceMs = sample.ms - windowMs;
        // At full speed the kernel's workers for the helper wait for each other; while sharing,
        // its small pieces hold nobody up, so stalls then are others'.
        const bool stalled = m_load != Load::Quiet && cpuStall > kStalledAbove;
        if (stalled)
            m_quietSinceMs = -1;
        else if (sample.ms - m_quietSinceMs >= kQuietForMs)
            m_load = Load::Quiet;
    } else {
        m_quietSinceMs = -1;
        m_load = others > double(m_processors) - kQuietBelow - kSharingDuty ? Load::Crowded : Load::Sharing;
    }
    return m_load != before;
}

Pacer::Pace Pacer::pace() const
{
    if (hold() != Hold::None)
        return {false, 0, 0.0};
    switch (m_load) {
    case Load::Quiet:
        return {true, kQuietStep, 1.0};
    case Load::Sharing:
        return {true, kSharingStep, kSharingDuty};
    case Load::Crowded:
        break;
    }
    return {true, kSharingStep, kCrowdedDuty};
}
