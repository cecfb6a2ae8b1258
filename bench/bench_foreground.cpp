// A stand-in for a user's foreground program, to measure what a background program costs it.
// Each thread wakes on a 10 ms timer and does a fixed amount of CPU work, as a game, a player or
// a window that redraws does, and notes how late each wake-up was.
//
//   bench-foreground --calibrate [--work-ms W] [--threads N]
//       prints "iterations=<n>": the work iterations that take W ms here (default 5, half of
//       each period), measured on N threads at once
//   bench-foreground --iterations I [--seconds S] [--threads N]
//       N threads (default one per core) each doing I iterations on every tick for S seconds
//       (default 10); prints "ready" once its ticks are set, then one line:
//       speed=<ticks of work done per second, all threads> lateness-p50-ms= lateness-p99-ms=
//       lateness-max-ms= (wake-up time minus tick time, over all ticks of all threads)
//       missed=<ticks skipped> work-mean-ms= work-p50-ms= work-p99-ms= (time one tick's work took)
//       threads=

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::int64_t kPeriodNs = 10'000'000;

std::int64_t now(clockid_t clock = CLOCK_MONOTONIC)
{
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return std::int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

void sleepUntil(std::int64_t ns)
{
    const timespec ts{time_t(ns / 1'000'000'000), long(ns % 1'000'000'000)};
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) { }
}

// Pure CPU work on 16 KB, a chain the compiler cannot shorten: every step reads a cell an
// earlier step wrote, and the state it ends in is written out (see Thread::sink).
class Work
{
public:
    void run(std::uint64_t iterations)
    {
        for (std::uint64_t i = 0; i < iterations; ++i) {
            std::uint64_t &cell = m_cells[m_state >> 53];
            m_state = m_state * 6364136223846793005ULL + cell + 1442695040888963407ULL;
            cell ^= m_state >> 17;
        }
    }
    std::uint64_t state() const { return m_state; }

private:
    std::array<std::uint64_t, 2048> m_cells{};
    std::uint64_t m_state = 0x9e3779b97f4a7c15ULL;
};

// One thread's figures, kept apart so threads do not share cache lines.
struct alignas(64) Thread {
    std::vector<std::int64_t> lateness; // ns, one per tick worked
    std::vector<std::int64_t> work; // ns, one per tick worked
    std::int64_t missed = 0;
    std::uint64_t bestNsPer1000 = UINT64_MAX; // calibration
    volatile std::uint64_t sink = 0;
};

// Ticks from first until end, each kPeriodNs apart.
void tickLoop(Thread &thread, std::int64_t first, std::int64_t end, std::uint64_t iterations)
{
    Work work;
    std::int64_t tick = first;
    while (tick < end) {
        sleepUntil(tick);
        const std::int64_t woke = now();
        work.run(iterations);
        const std::int64_t done = now();
        thread.lateness.push_back(woke - tick);
        thread.work.push_back(done - woke);
        thread.sink = work.state();
        tick += kPeriodNs;
        // Up to a tick behind, the next tick's work starts at once, late. More than a tick
        // behind, the thread does not run the missed ticks back to back to catch up: it skips to
        // the next tick still ahead, and the ones it passed over are missed.
        if (done - tick > kPeriodNs) {
            for (; tick <= done; tick += kPeriodNs)
                thread.missed += tick < end;
        }
    }
}

// The fastest of many runs of about workNs, in ns of the thread's own CPU time per 1000
// iterations: time others had the core is not counted, so a loaded machine calibrates as an
// idle one does, and the fastest run is the one with the caches least disturbed.
void calibrate(Thread &thread, std::int64_t workNs)
{
    Work work;
    std::int64_t start = now(CLOCK_THREAD_CPUTIME_ID);
    work.run(100000);
    const double estimate = double(std::max<std::int64_t>(now(CLOCK_THREAD_CPUTIME_ID) - start, 1)) / 100000;
    const auto iterations = std::uint64_t(std::max(1.0, double(workNs) / estimate));
    for (int trial = 0; trial < 60; ++trial) {
        start = now(CLOCK_THREAD_CPUTIME_ID);
        work.run(iterations);
        const auto per1000 = std::uint64_t((now(CLOCK_THREAD_CPUTIME_ID) - start) * 1000 / std::int64_t(iterations));
        thread.bestNsPer1000 = std::min(thread.bestNsPer1000, per1000);
        thread.sink = work.state();
        // Gaps between runs, as ticks leave them, so the figure is not the one of a core that
        // has been hot for a while.
        sleepUntil(now() + workNs);
    }
}

double milliseconds(std::int64_t ns)
{
    return double(ns) / 1e6;
}

// Nearest-rank percentile of sorted values.
std::int64_t percentile(const std::vector<std::int64_t> &sorted, double p)
{
    if (sorted.empty())
        return 0;
    const auto rank = std::size_t(p / 100.0 * double(sorted.size()) + 0.999999);
    return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

int usage()
{
    std::fprintf(stderr,
                 "usage: bench-foreground --calibrate [--work-ms W] [--threads N]\n"
                 "       bench-foreground --iterations I [--seconds S] [--threads N]\n");
    return 2;
}

} // namespace

int main(int argc, char *argv[])
{
    bool calibrating = false;
    double workMs = 5, seconds = 10;
    long long iterations = 0;
    long threads = ::sysconf(_SC_NPROCESSORS_ONLN);
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (!std::strcmp(argv[i], "--calibrate"))
            calibrating = true;
        else if (!std::strcmp(argv[i], "--work-ms") && hasValue)
            workMs = std::atof(argv[++i]);
        else if (!std::strcmp(argv[i], "--seconds") && hasValue)
            seconds = std::atof(argv[++i]);
        else if (!std::strcmp(argv[i], "--iterations") && hasValue)
            iterations = std::atoll(argv[++i]);
        else if (!std::strcmp(argv[i], "--threads") && hasValue)
            threads = std::atol(argv[++i]);
        else
            return usage();
    }
    if (threads < 1 || workMs <= 0 || seconds <= 0 || (!calibrating && iterations < 1))
        return usage();

    std::vector<Thread> figures(static_cast<std::size_t>(threads));
    std::vector<std::thread> running;
    if (calibrating) {
        const auto workNs = std::int64_t(workMs * 1e6);
        for (Thread &thread : figures)
            running.emplace_back(calibrate, std::ref(thread), workNs);
        for (std::thread &t : running)
            t.join();
        // The fastest run of all threads: the machine's speed with nobody else on it, which
        // load from other programs can only make look slower.
        std::uint64_t fastest = UINT64_MAX;
        for (const Thread &thread : figures)
            fastest = std::min(fastest, thread.bestNsPer1000);
        std::printf(
            "iterations=%llu\n",
            static_cast<unsigned long long>(double(workNs) * 1000 / double(std::max<std::uint64_t>(fastest, 1))));
        return 0;
    }

    // All threads share the ticks, as the threads of one program woken by one frame do. The
    // figures are kept in memory set aside now, so the run allocates nothing.
    const auto ticks = std::size_t(seconds * 1e9 / double(kPeriodNs)) + 1;
    for (Thread &thread : figures) {
        thread.lateness.reserve(ticks);
        thread.work.reserve(ticks);
    }
    const std::int64_t first = now() + 20'000'000;
    const std::int64_t end = first + std::int64_t(seconds * 1e9);
    for (Thread &thread : figures)
        running.emplace_back(tickLoop, std::ref(thread), first, end, std::uint64_t(iterations));
    std::printf("ready\n");
    std::fflush(stdout);
    for (std::thread &t : running)
        t.join();

    std::vector<std::int64_t> lateness, work;
    std::int64_t missed = 0;
    for (const Thread &thread : figures) {
        lateness.insert(lateness.end(), thread.lateness.begin(), thread.lateness.end());
        work.insert(work.end(), thread.work.begin(), thread.work.end());
        missed += thread.missed;
    }
    std::sort(lateness.begin(), lateness.end());
    std::sort(work.begin(), work.end());
    std::int64_t workTotal = 0;
    for (const std::int64_t ns : work)
        workTotal += ns;
    std::printf("speed=%.1f lateness-p50-ms=%.3f lateness-p99-ms=%.3f lateness-max-ms=%.3f missed=%lld "
                "work-mean-ms=%.3f work-p50-ms=%.3f work-p99-ms=%.3f threads=%ld\n",
                double(lateness.size()) / seconds, milliseconds(percentile(lateness, 50)),
                milliseconds(percentile(lateness, 99)), milliseconds(lateness.empty() ? 0 : lateness.back()),
                static_cast<long long>(missed), milliseconds(work.empty() ? 0 : workTotal / std::int64_t(work.size())),
                milliseconds(percentile(work, 50)), milliseconds(percentile(work, 99)), threads);
    return 0;
}
