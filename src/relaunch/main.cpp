// relaunch <application path> <process id>
//
// Waits for the process to end, then starts the application again, detached, with the
// arguments, environment and working folder that process had. The pane starts this from a
// copy in the user's private temporary folder just before the host quits.

#include "platform/DetachedSpawn.h"

#include <QLoggingCategory>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

Q_LOGGING_CATEGORY(lcRelaunch, "vantor.relaunch", QtInfoMsg)

void splitAtNul(const std::string &all, std::vector<std::string> *items)
{
    size_t start = 0;
    while (start < all.size()) {
        size_t end = all.find('\0', start);
        if (end == std::string::npos)
            end = all.size();
        items->push_back(all.substr(start, end - start));
        start = end + 1;
    }
}

// A NUL-separated /proc list (cmdline, environ); false when it cannot be read.
bool readNulList(const std::string &path, std::vector<std::string> *items)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        return false;
    splitAtNul(all, items);
    return true;
}

std::string realPath(const std::string &path)
{
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

// The host's arguments as the pane hands them over: its NUL-separated command line in hex.
constexpr char kArgumentsVariable[] = "VANTOR_RELAUNCH_ARGUMENTS";

bool decodeArguments(const char *hex, std::vector<std::string> *items)
{
    const std::string text = hex;
    if (text.size() % 2 != 0)
        return false;
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        char *end = nullptr;
        const std::string pair = text.substr(i, 2);
        const long value = std::strtol(pair.c_str(), &end, 16);
        if (*end != '\0')
            return false;
        bytes.push_back(char(value));
    }
    splitAtNul(bytes, items);
    return !items->empty();
}

// This tool's own environment, which is the host's (the host started it), less the hand-over.
std::vector<std::string> ownEnvironment()
{
    std::vector<std::string> out;
    const std::string prefix = std::string(kArgumentsVariable) + "=";
    for (char **e = environ; *e; ++e) {
        if (std::strncmp(*e, prefix.c_str(), prefix.size()) != 0)
            out.emplace_back(*e);
    }
    return out;
}

std::vector<char *> pointers(std::vector<std::string> &items)
{
    std::vector<char *> out;
    for (std::string &s : items)
        out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: relaunch <application path> <process id>\n");
        return 2;
    }
    const std::string application = argv[1];
    char *end = nullptr;
    errno = 0;
    const long pidValue = std::strtol(argv[2], &end, 10);
    if (errno != 0 || end == argv[2] || *end != '\0' || pidValue <= 0 || pidValue > INT_MAX) {
        qCWarning(lcRelaunch, "not a process id: %s", argv[2]);
        return 2;
    }
    const pid_t pid = pid_t(pidValue);
    if (::access(application.c_str(), X_OK) != 0) {
        qCWarning(lcRelaunch, "cannot run %s: %s", application.c_str(), std::strerror(errno));
        return 1;
    }

    // The pidfd pins the process, so what /proc says below is about it, not a successor.
    const int pidfd = DetachedSpawn::pidfdOpen(pid);
    if (pidfd < 0 && errno != ESRCH) {
        qCWarning(lcRelaunch, "cannot watch process %d: %s", int(pid), std::strerror(errno));
        return 1;
    }

    // Its arguments and environment: handed over by the host when it started us (it may be
    // gone before we look), else taken from /proc now, while it still runs, and only when it
    // is the application we are to start again.
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    std::string workingFolder;
    const char *handedOver = std::getenv(kArgumentsVariable);
    if (handedOver && decodeArguments(handedOver, &arguments)) {
        environment = ownEnvironment();
    } else if (pidfd >= 0) {
        arguments.clear();
        const std::string proc = "/proc/" + std::to_string(pid);
        const std::string exe = realPath(proc + "/exe");
        if (!exe.empty() && exe == realPath(application) && readNulList(proc + "/cmdline", &arguments)
            && readNulList(proc + "/environ", &environment))
            workingFolder = realPath(proc + "/cwd");
        else
            arguments.clear(), environment.clear();
    }
    if (pidfd >= 0) {
        pollfd wait = {pidfd, POLLIN, 0};
        while (::poll(&wait, 1, -1) < 0 && errno == EINTR) { }
        ::close(pidfd);
    }

    if (arguments.empty())
        arguments.push_back(application);
    std::vector<char *> args = pointers(arguments);
    std::vector<char *> env = pointers(environment);
    if (!workingFolder.empty() && ::chdir(workingFolder.c_str()) != 0)
        qCWarning(lcRelaunch, "cannot enter %s: %s", workingFolder.c_str(), std::strerror(errno));

    // The application is started detached: it must not share the ended process's output,
    // often a pipe whose reader went away with it, where its first log line would end it
    // (SIGPIPE). Our own errors still go where they went.
    const int savedError = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            ::dup2(null, fd);
        ::close(null);
    }
    const bool started =
        DetachedSpawn::spawn(application.c_str(), args.data(), environment.empty() ? environ : env.data()) >= 0;
    const int spawnError = errno;
    if (savedError >= 0)
        ::dup2(savedError, STDERR_FILENO);
    if (!started) {
        qCWarning(lcRelaunch, "cannot start %s: %s", application.c_str(), std::strerror(spawnError));
        return 1;
    }
    return 0;
}
