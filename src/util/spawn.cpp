/* The device's shell for one command, started with posix_spawn. */
#include "util/spawn.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

/* The commands whose output is being read: a handful at most (one per
 * thread that runs commands). */
struct Spawned {
    FILE *stream;
    pid_t pid;
    Spawned *next;
};

pthread_mutex_t s_spawnedLock = PTHREAD_MUTEX_INITIALIZER;
Spawned *s_spawned = NULL;

/* Starts "/bin/sh -c cmd", its standard output on outFd when that is not
 * -1; the process id, or -1. */
pid_t startShell(const char *cmd, int outFd)
{
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    if (posix_spawn_file_actions_init(&actions) != 0)
        return -1;
    if (posix_spawnattr_init(&attr) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    int ok = 1;
    if (outFd != -1)
        ok = posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO) == 0;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    /* every other descriptor of the agent is close-on-exec anyway */
    ok = ok && posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1) == 0;
#endif
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    ok = ok && posix_spawnattr_setsigmask(&attr, &none) == 0 &&
         posix_spawnattr_setsigdefault(&attr, &defaults) == 0 &&
         posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
    pid_t pid = -1;
    if (ok) {
        char sh[] = "sh";
        char dashC[] = "-c";
        char *argv[] = {sh, dashC, const_cast<char *>(cmd), NULL};
        if (posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, environ) != 0)
            pid = -1;
    }
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

/* The wait status of pid (resumed after a signal); -1 on an error. */
int waitFor(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

} // namespace

FILE *spawn_pipe(const char *cmd)
{
    if (cmd == NULL)
        return NULL;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return NULL;
    Spawned *entry = static_cast<Spawned *>(malloc(sizeof *entry));
    pid_t pid = entry != NULL ? startShell(cmd, ends[1]) : -1;
    close(ends[1]);
    FILE *stream = pid != -1 ? fdopen(ends[0], "r") : NULL;
    if (stream == NULL) {
        close(ends[0]);
        if (pid != -1)
            waitFor(pid);
        free(entry);
        return NULL;
    }
    entry->stream = stream;
    entry->pid = pid;
    pthread_mutex_lock(&s_spawnedLock);
    entry->next = s_spawned;
    s_spawned = entry;
    pthread_mutex_unlock(&s_spawnedLock);
    return stream;
}

int close_spawned_pipe(FILE *stream)
{
    pthread_mutex_lock(&s_spawnedLock);
    Spawned **link = &s_spawned;
    while (*link != NULL && (*link)->stream != stream)
        link = &(*link)->next;
    Spawned *entry = *link;
    if (entry != NULL)
        *link = entry->next;
    pthread_mutex_unlock(&s_spawnedLock);
    if (entry == NULL)
        return -1;
    fclose(stream);
    int status = waitFor(entry->pid);
    free(entry);
    return status;
}

int spawn_and_wait(const char *cmd)
{
    if (cmd == NULL)
        return -1;
    pid_t pid = startShell(cmd, -1);
    return pid == -1 ? -1 : waitFor(pid);
}
