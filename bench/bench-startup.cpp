// bench-startup: time from process start to the first painted frame of vantor-preferences
// with the pane, against a bare Qt window started the same way, alternating runs.
// Prints medians and, last, the ratio.

#include <QByteArray>
#include <QDir>
#include <QList>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <cstdlib>
#include <ctime>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

long long nowNs()
{
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

// Starts argv, reads its "first-frame <ns>" line; returns milliseconds or -1.
double measure(const std::vector<std::string> &args)
{
    int out[2];
    if (pipe(out) != 0)
        return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::vector<char *> argv;
    for (const auto &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    const long long start = nowNs();
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (rc != 0) {
        close(out[0]);
        return -1;
    }
    std::string text;
    char buf[256];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof buf)) > 0)
        text.append(buf, size_t(n));
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    const auto at = text.find("first-frame ");
    if (at == std::string::npos)
        return -1;
    return double(std::atoll(text.c_str() + at + 12) - start) / 1e6;
}

double median(QList<double> v)
{
    std::sort(v.begin(), v.end());
    return v.isEmpty() ? 0 : v.at(v.size() / 2);
}

} // namespace

int main(int argc, char *argv[])
{
    const int runs = argc > 1 ? std::atoi(argv[1]) : 15;
    QTemporaryDir home;
    setenv("HOME", QFile::encodeName(home.path()).constData(), 1);
    unsetenv("XDG_DATA_HOME");
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    setenv("VANTOR_REPORT_FIRST_FRAME", "1", 1);

    const std::vector<std::string> host = {VANTOR_HOST, "--pane", VANTOR_PANE};
    const std::vector<std::string> bare = {VANTOR_BARE};
    measure(host); // warm the file cache for both
    measure(bare);

    QList<double> hostMs, bareMs;
    for (int i = 0; i < runs; ++i) {
        const double h = measure(host);
        const double b = measure(bare);
        if (h < 0 || b < 0) {
            std::fprintf(stderr, "bench-startup: a run did not report its first frame\n");
            return 1;
        }
        hostMs << h;
        bareMs << b;
    }
    const double h = median(hostMs), b = median(bareMs);
    std::printf("runs %d (median of each)\n", runs);
    std::printf("bare Qt window      %.1f ms\n", b);
    std::printf("vantor-preferences  %.1f ms\n", h);
    std::printf("RESULT startup %.1f ms ratio=%.2f\n", h, h / b);
    return 0;
}
