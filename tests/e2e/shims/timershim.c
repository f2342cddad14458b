/*
 * Test shim preloaded into the agent (LD_PRELOAD) for the suites that
 * count the maintenance timer's ticks and the status periods.  The agent
 * binary itself is not changed.
 *
 *   select() with no descriptors and a timeout (the timer's one-second
 *       wait) is counted.  KC_TICK_FILE names a file that holds, on one
 *       line rewritten in place, the count and "run" or "held".
 *       KC_TICK_HOLD names a file holding a tick number H and a newline
 *       (a file without them is taken as unchanged).  While fewer
 *       than H waits have ended, a wait lasts KC_TICK_SCALE times as long
 *       (default 0: it ends at once).  Once H have ended, the next wait
 *       holds ("H held" in the count file: the checks of tick H are done)
 *       until the file names a higher number, and then ends at once.
 *       Without the hold file a wait is the C library's select().
 *   nanosleep, clock_nanosleep of whole seconds (the status period): the
 *       seconds asked for are appended as one line to KC_PERIOD_LOG before
 *       the wait, which lasts KC_PERIOD_SCALE times as long (default 1).
 *
 * Every other wait is the C library's own.  A signal that interrupts a
 * shortened or held wait ends it with EINTR, as select() reports it.  The
 * shim is for the agent alone: it drops LD_PRELOAD at load time, so the
 * device tools the agent runs do not inherit it.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

typedef int (*select_fn)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
typedef int (*clock_nanosleep_fn)(clockid_t, int, const struct timespec *, struct timespec *);

static select_fn s_select;
static clock_nanosleep_fn s_clockNanosleep;
static const char *s_holdFile;
static double s_tickScale = 0.0;
static double s_periodScale = 1.0;
static int s_tickFd = -1;
static int s_periodFd = -1;
static long s_ticks;

__attribute__((constructor)) static void timershim_init(void)
{
    const char *text = getenv("KC_TICK_SCALE");
    if (text != NULL && text[0] != '\0')
        s_tickScale = atof(text);
    text = getenv("KC_PERIOD_SCALE");
    if (text != NULL && text[0] != '\0')
        s_periodScale = atof(text);
    s_holdFile = getenv("KC_TICK_HOLD");
    text = getenv("KC_TICK_FILE");
    if (text != NULL && text[0] != '\0')
        s_tickFd = open(text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    text = getenv("KC_PERIOD_LOG");
    if (text != NULL && text[0] != '\0')
        s_periodFd = open(text, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    s_select = (select_fn)dlsym(RTLD_NEXT, "select");
    s_clockNanosleep = (clock_nanosleep_fn)dlsym(RTLD_NEXT, "clock_nanosleep");
    unsetenv("LD_PRELOAD");
}

static void writeState(const char *state)
{
    if (s_tickFd < 0)
        return;
    char line[64];
    int len = snprintf(line, sizeof line, "%20ld %-4s\n", s_ticks, state);
    if (pwrite(s_tickFd, line, (size_t)len, 0) < 0) {
        /* best effort */
    }
}

/* The number in the hold file, or -1 when there is no such file.  A file
 * caught between its truncation and its new text (the test rewrites it)
 * still holds the number read last. */
static long s_lastHold = -1;

static long holdAt(void)
{
    if (s_holdFile == NULL || s_holdFile[0] == '\0')
        return -1;
    int fd = open(s_holdFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        s_lastHold = -1;
        return -1;
    }
    char text[32];
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    if (n <= 0 || text[n - 1] != '\n')
        return s_lastHold;
    text[n] = '\0';
    s_lastHold = atol(text);
    return s_lastHold;
}

/* A relative wait on the monotonic clock; 0, or -1 with errno EINTR. */
static int pause_for(double seconds)
{
    if (seconds < 0)
        seconds = 0;
    struct timespec ts;
    ts.tv_sec = (time_t)seconds;
    ts.tv_nsec = (long)((seconds - (double)ts.tv_sec) * 1e9);
    int ret = s_clockNanosleep(CLOCK_MONOTONIC, 0, &ts, NULL);
    if (ret != 0) {
        errno = ret;
        return -1;
    }
    return 0;
}

/* only the timer thread waits this way: no other thread touches the count */
int select(int nfds, fd_set *r, fd_set *w, fd_set *e, struct timeval *tv)
{
    if (nfds != 0 || r != NULL || w != NULL || e != NULL || tv == NULL)
        return s_select(nfds, r, w, e, tv);
    long hold = holdAt();
    if (hold < 0) {
        int ret = s_select(nfds, r, w, e, tv);
        if (ret == 0) {
            s_ticks++;
            writeState("run");
        }
        return ret;
    }
    if (s_ticks < hold) {
        double seconds = ((double)tv->tv_sec + tv->tv_usec / 1e6) * s_tickScale;
        if (seconds > 0 && pause_for(seconds) != 0)
            return -1;
    } else {
        writeState("held");
        for (;;) {
            hold = holdAt();
            if (hold < 0 || hold > s_ticks)
                break;
            if (pause_for(0.01) != 0)
                return -1;
        }
    }
    s_ticks++;
    writeState("run");
    return 0;
}

static int whole_seconds(const struct timespec *req)
{
    return req != NULL && req->tv_nsec == 0 && req->tv_sec >= 1;
}

static void logPeriod(long seconds)
{
    if (s_periodFd < 0)
        return;
    char line[32];
    int len = snprintf(line, sizeof line, "%ld\n", seconds);
    if (write(s_periodFd, line, (size_t)len) < 0) {
        /* best effort */
    }
}

int nanosleep(const struct timespec *req, struct timespec *rem)
{
    if (!whole_seconds(req)) {
        int ret = s_clockNanosleep(CLOCK_REALTIME, 0, req, rem);
        if (ret != 0) {
            errno = ret;
            return -1;
        }
        return 0;
    }
    logPeriod((long)req->tv_sec);
    if (pause_for((double)req->tv_sec * s_periodScale) != 0) {
        /* interrupted: nothing of the shortened wait is left */
        if (rem != NULL)
            memset(rem, 0, sizeof *rem);
        return -1;
    }
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *req,
                    struct timespec *rem)
{
    if (flags != 0 || !whole_seconds(req))
        return s_clockNanosleep(clock, flags, req, rem);
    logPeriod((long)req->tv_sec);
    if (pause_for((double)req->tv_sec * s_periodScale) != 0) {
        int err = errno;
        if (rem != NULL)
            memset(rem, 0, sizeof *rem);
        return err;
    }
    return 0;
}
