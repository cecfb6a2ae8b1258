#pragma once

// Starting a program the way the desktop starts applications: no shell, in a session of its
// own, with an empty signal mask and every signal at its default disposition, standard
// input from /dev/null; with discardOutput standard output and error go there too, so an
// application lives on without holding its starter's terminal or pipe. No other descriptor
// is inherited. Header-only, so the relaunch tool, which runs from a copy with none of our
// libraries beside it, uses the same code as the pane and the login-items agent.

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace DetachedSpawn {

// Returns the child's pid, or -1 with errno set. argv and envp end with a null pointer;
// with searchPath the program is looked up in $PATH as a shell would, without one.
inline pid_t spawn(const char *program, char *const argv[], char *const envp[], bool searchPath = false,
                   bool discardOutput = false)
{
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    if (int rc = posix_spawnattr_init(&attr); rc != 0) {
        errno = rc;
        return -1;
    }
    posix_spawn_file_actions_init(&actions);

    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (discardOutput) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    }
    // Nothing else of ours reaches the child: a descriptor its starter left open (the write end
    // of a pipe someone reads to its end) would stay open for as long as the child runs.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

    pid_t pid = -1;
    const int rc = searchPath ? posix_spawnp(&pid, program, &actions, &attr, argv, envp)
                              : posix_spawn(&pid, program, &actions, &attr, argv, envp);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return pid;
}

// A descriptor that becomes readable when the process ends; -1 with errno set.
inline int pidfdOpen(pid_t pid)
{
    return int(::syscall(SYS_pidfd_open, pid, 0));
}

} // namespace DetachedSpawn
