/*
 * What a SIGTERM does, decided by the thread it hit:
 *   - the main thread: the WebSocket connection is closed (the connection
 *     manager then reconnects);
 *   - the thread named in "/tmp/cloud_timer_pid" (the maintenance timer):
 *     every queue is saved to its backup file and every instance of the
 *     agent is killed ("killall -9 korvat-cloud");
 *   - a missing "/tmp/cloud_timer_pid" is reported.
 *
 * Routing.  On the device every thread is its own process, so "kill PID"
 * reaches exactly that thread and "killall korvat-cloud" reaches them all.
 * On today's Linux a process-directed SIGTERM (kill PID, what a service
 * manager sends) goes to a thread that does not block it, the main thread
 * first.  Every thread the agent creates starts with SIGTERM blocked
 * (createThread); only the main thread and the maintenance timer take it.
 * So "kill PID" closes the connection, and "kill $(cat /tmp/cloud_timer_pid)"
 * (what the init script's stop does) reaches the timer thread: Linux hands
 * a signal sent to a thread's id to that thread when it does not block it.
 *
 * Signal safety.  The handler only records which thread it hit: it writes
 * the thread id into a pipe (write is async-signal-safe; errno is kept).
 * A worker thread of its own reads the pipe and does the work in thread
 * context -- debug line, close, file read, backup, killall -- with every
 * line printed as before and in the same order, the debug line under the
 * id of the thread that was hit.  So a SIGTERM that lands while the hit
 * thread holds the allocator's or stdio's lock, or is busy in a long
 * handler, cannot hang the agent, and the connection still closes at once.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/sigterm.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "linux/thread.h"
#include "sdk/nimb_sdk.h"
#include "sdk/queue_backup.h"
#include "util/debug.h"
#include "util/shell.h"

static int s_mainProcessId = 0;
static int s_pipe[2] = {-1, -1};
/* Hits recorded by the handler, and hits the worker has finished. */
static std::atomic<unsigned int> s_raised{0};
static std::atomic<unsigned int> s_handled{0};

void kapri_sig_term(int signum)
{
    (void)signum;
    int saved = errno;
    int hit = (int)syscall(SYS_gettid);
    s_raised.fetch_add(1);
    if (write(s_pipe[1], &hit, sizeof hit) != (ssize_t)sizeof hit) {
        /* the pipe is full: thousands of hits are waiting already */
        s_raised.fetch_sub(1);
    }
    errno = saved;
}

/* The handler's work for a SIGTERM that hit thread `pid`. */
static void handleSigterm(int pid)
{
    if (pid == s_mainProcessId) {
        KC_DEBUG_AS(pid, "kapri_sig_term", 33, "close web socket.\n");
        closeServerConnection();
    }
    FILE *file = access("/tmp/cloud_timer_pid", F_OK) == 0
                     ? fopen("/tmp/cloud_timer_pid", "re")
                     : NULL;
    if (file == NULL) {
        /* The arguments stand in this order in every such message. */
        printf("Func %s: File %s doesn't exist.\n", "/tmp/cloud_timer_pid",
               "kapri_sig_term");
        return;
    }
    char line[1024];
    while (fgets(line, sizeof line, file) != NULL) {
        if (atoi(line) == pid) {
            /* a hand-over: what is saved is no longer taken in this run,
             * so nothing runs both before the stop and after the restart */
            backup_all_queues_for_next_start();
            run_system_command("killall -9 korvat-cloud");
        }
    }
    fclose(file);
}

static void *sigtermWorker(void *)
{
    for (;;) {
        int hit = 0;
        ssize_t n = read(s_pipe[0], &hit, sizeof hit);
        if (n == (ssize_t)sizeof hit) {
            handleSigterm(hit);
            s_handled.fetch_add(1);
        } else if (n < 0 && errno != EINTR) {
            return NULL;
        }
    }
}

void startSigtermHandling(int mainProcessId)
{
    s_mainProcessId = mainProcessId;
    int ret = pipe2(s_pipe, O_CLOEXEC);
    KC_ASSERT(0 == ret, "0 == ret");
    /* never block the handler */
    ret = fcntl(s_pipe[1], F_SETFL, O_NONBLOCK);
    KC_ASSERT(-1 != ret, "-1 != ret");
    pthread_t thread;
    ret = createThread(&thread, sigtermWorker, NULL, 1);
    KC_ASSERT(0 == ret, "0==ret");
    signal(SIGTERM, kapri_sig_term);
}

void waitSigtermHandled(void)
{
    unsigned int target = s_raised.load();
    while (s_handled.load() < target)
        usleep(10 * 1000);
}
