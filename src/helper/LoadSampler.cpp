#include "helper/LoadSampler.h"

#include <QElapsedTimer>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// A small procfs file whole, without the cost of a stream: this runs a few times a second.
bool readSmallFile(const char *path, char *buffer, std::size_t size)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const ssize_t n = ::read(fd, buffer, size - 1);
    ::close(fd);
    buffer[n > 0 ? n : 0] = 0;
    return n > 0;
}

} // namespace

Pacer::Sample LoadSampler::take()
{
    static QElapsedTimer clock;
    if (!clock.isValid())
        clock.start();
    Pacer::Sample sample;
    sample.ms = clock.elapsed();
    sample.ticksPerSecond = std::max(::sysconf(_SC_CLK_TCK), 1L);
    char buffer[512];
    // "cpu  user nice system idle ...": the first line sums every processor.
    if (readSmallFile("/proc/stat", buffer, sizeof buffer)) {
        unsigned long long user = 0, nice = 0;
        if (std::sscanf(buffer, "cpu %llu %llu", &user, &nice) == 2)
            sample.userTicks = user + nice;
    }
    struct rusage usage { };
    ::getrusage(RUSAGE_SELF, &usage);
    const quint64 ownUs = quint64(usage.ru_utime.tv_sec) * 1000000u + quint64(usage.ru_utime.tv_usec);
    sample.ownUserTicks = ownUs * quint64(sample.ticksPerSecond) / 1000000u;
    return sample;
}
