#pragma once

#include <QtGlobal>

// How fast the helper may hand work to the kernel, and whether at all. btrfs compresses in
// kernel workers at normal priority, beyond the reach of the helper's own idle priority, so
// the helper paces what it hands them by what the rest of the machine is doing:
//
// - quiet: nobody else wants the processors, so it works at full speed;
// - sharing: another program is at work, so the helper hands over one small piece at a time
//   with rests between, never keeping a processor for long, and uses a quarter of one at most;
// - crowded: the machine is full with others' work, so it only trickles on.
//
// It starts sharing and speeds up only once the machine has been quiet for a while; the
// first sign of somebody else slows it down at once. Nothing is handed over while the user
// switched the helper off, or while the computer runs on battery or saves power.
//
// Only rules live here: the clock and the machine's counters come in as samples, so the rules
// are tested without a machine to load.
class Pacer
{
public:
    enum class Hold { None, SwitchedOff, Battery, PowerSaver };
    enum class Load { Quiet, Sharing, Crowded };

    // Counters of the machine and the helper, as Linux gives them to any user, at one moment.
    // All are running totals; only their growth between two samples counts.
    struct Sample {
        qint64 ms = 0; // a monotonic clock
        quint64 cpuStallUs = 0; // time some task waited for a processor (/proc/pressure/cpu)
        quint64 userTicks = 0; // time all processors spent in user programs (/proc/stat)
        quint64 ownUserTicks = 0; // of which the helper's own
        qint64 ticksPerSecond = 100;
    };
    struct Pace {
        bool go = false; // may hand work over at all
        qint64 stepBytes = 0; // the most one call may hand over
        double duty = 1.0; // share of the time the kernel may spend on it
        // The rest after a call that took callMs, so that the kernel's share stays at duty.
        int restMs(qint64 callMs) const;
        bool operator==(const Pace &) const = default;
    };

    // Full speed: pieces big enough to keep every processor busy.
    static constexpr qint64 kQuietStep = 4 * 1024 * 1024;
    // One piece btrfs compresses in one go, in a millisecond or two.
    static constexpr qint64 kSharingStep = 128 * 1024;
    // Share of one processor used while others work, and while the machine is full.
    static constexpr double kSharingDuty = 0.25;
    static constexpr double kCrowdedDuty = 0.03;
    // Others' work, in processors, below which the machine counts as quiet.
    static constexpr double kQuietBelow = 0.15;
    // How long it must have stayed quiet before the helper speeds up.
    static constexpr qint64 kQuietForMs = 1500;
    // While sharing, tasks waiting for a processor this share of the time are others held up by
    // work that is not a user program's (the kernel's for them, a virtual machine).
    static constexpr double kStalledAbove = 0.10;
    // Samples closer than this tell nothing reliable.
    static constexpr qint64 kMinWindowMs = 100;

    explicit Pacer(int processors);

    void setSwitchedOn(bool on) { m_switchedOn = on; }
    void setPower(bool onBattery, bool powerSaver);

    // Feeds a sample taken while there is work; returns true when the load changed.
    bool sample(const Sample &sample);
    // Work after a time without any: the machine may have become busy meanwhile, so the
    // helper starts by sharing again.
    void restart();

    Hold hold() const;
    Load load() const { return m_load; }
    // While it gives way to others (for the rescan schedule and the status).
    bool isMachineBusy() const { return m_load != Load::Quiet; }
    Pace pace() const;

private:
    int m_processors;
    bool m_switchedOn = true;
    bool m_onBattery = false;
    bool m_powerSaver = false;
    Load m_load = Load::Sharing;
    bool m_hasSample = false;
    Sample m_last;
    qint64 m_quietSinceMs = -1;
};
