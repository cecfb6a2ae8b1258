#pragma once

#include <QList>
#include <QtGlobal>

// How fast the helper may hand work to the kernel, and whether at all. btrfs compresses in
// kernel workers at normal priority, beyond the reach of the helper's own idle priority, so
// the helper paces what it hands them by what the rest of the machine is doing. What others
// do shows as time in user programs beyond the helper's own: the kernel's workers compressing
// for the helper never show there.
//
// - quiet: nobody else wants the processors, so it works at full speed;
// - sharing: another program is at work, so the helper hands over one small piece at a time
//   and waits until btrfs has written it, then rests 32 times as long: the kernel's workers
//   then hold a processor about one wake-up in a hundred, so another program's threads
//   rarely wake to find theirs taken (more, and the scheduler often queues two of them on
//   one processor for a whole slice);
// - crowded: the machine is full with others' work, so it only trickles on.
//
// It starts sharing and speeds up once the machine has been quiet for a moment; the first
// sign of somebody else slows it down at once. Samples come every twentieth of a second or so,
// and each decision looks at the last few, so one sample's noise decides nothing. Nothing is
// handed over while the user switched the helper off, or while the computer runs on battery
// or saves power.
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
        quint64 userTicks = 0; // time all processors spent in user programs (/proc/stat)
        quint64 ownUserTicks = 0; // of which the helper's own
        qint64 ticksPerSecond = 100;
    };
    struct Pace {
        bool go = false; // may hand work over at all
        qint64 stepBytes = 0; // the most one call may hand over
        double duty = 1.0; // share of the time the kernel may spend on it
        int parallel = 1; // files worked on side by side
        // The rest after a call that took callMs, so that the kernel's share stays at duty.
        int restMs(qint64 callMs) const;
        bool operator==(const Pace &) const = default;
    };

    // Full speed: pieces big enough to keep every processor busy.
    static constexpr qint64 kQuietStep = 4 * 1024 * 1024;
    // One piece btrfs compresses in one go, in a millisecond or two.
    static constexpr qint64 kSharingStep = 128 * 1024;
    // Share of one processor the kernel's work for the helper may take while others work,
    // and while the machine is full.
    static constexpr double kSharingDuty = 0.03;
    static constexpr double kCrowdedDuty = 0.01;
    // Others' work, in processors, below which the machine counts as quiet, and above which a
    // quiet one counts as busy again.
    static constexpr double kQuietBelow = 0.15;
    static constexpr double kBusyAbove = 0.25;
    // The span of samples each decision looks at; the first after a start may look at less,
    // so that work on a quiet machine is soon at full speed.
    static constexpr qint64 kWindowMs = 300;
    static constexpr qint64 kFirstWindowMs = 50;
    // Samples closer than this tell nothing reliable.
    static constexpr qint64 kMinGapMs = 40;

    explicit Pacer(int processors);
    int processors() const { return m_processors; }

    void setSwitchedOn(bool on) { m_switchedOn = on; }
    void setPower(bool onBattery, bool powerSaver);

    // Feeds a sample taken while there is work; returns true when the load changed, or was
    // first decided.
    bool sample(const Sample &sample);
    // Work after a time without any: the machine may have become busy meanwhile, so the
    // helper starts by sharing again.
    void restart();

    Hold hold() const;
    Load load() const { return m_load; }
    // While it gives way to others, as far as it knows: it starts by sharing before it has
    // looked, which is no news for the status.
    bool isMachineBusy() const { return m_decided && m_load != Load::Quiet; }
    Pace pace() const;

private:
    int m_processors;
    bool m_switchedOn = true;
    bool m_onBattery = false;
    bool m_powerSaver = false;
    Load m_load = Load::Sharing;
    bool m_decided = false; // since the last restart
    QList<Sample> m_samples; // spanning at most kWindowMs, oldest first
};
