/*
 * Test shim preloaded into the agent (LD_PRELOAD) for the long-run suites:
 * shortens the agent's waits of whole seconds so that hundreds of
 * reconnection attempts and status periods pass in minutes, and counts the
 * status periods.  The agent binary itself is not changed.
 *
 *   sleep(N)                 the reconnection back-off: lasts N *
 *                            KC_SHIM_SLEEP_SCALE seconds (default 0.001)
 *   nanosleep, clock_nanosleep of whole seconds (no nanoseconds part, at
 *                            least one second): the status period.  Lasts
 *                            KC_SHIM_PERIOD_SCALE times as long (default
 *                            1: unchanged) and is counted into
 *                            KC_SHIM_PERIOD_FILE (the count, one line,
 *                            rewritten in place at every wait that ended)
 *
 * Every other wait (select, usleep, waits shorter than a second or with a
 * fraction) is the C library's own.  The shim is for the agent alone: it
 * drops LD_PRELOAD at load time, so the device tools the agent runs do not
 * inherit it.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

typedef int (*clock_nanosleep_fn)(clockid_t, int, const struct timespec *, struct timespec *);

static double s_sleepScale = 0.001;
static double s_periodScale = 1.0;
static int s_periodFd = -1;
static long s_periods;
static clock_nanosleep_fn s_clockNanosleep;

__attribute__((constructor)) static void periodshim_init(void)
{
    const char *text = getenv("KC_SHIM_SLEEP_SCALE");
    if (text != NULL && text[0] != '\0')
        s_sleepScale = atof(text);
    text = getenv("KC_SHIM_PERIOD_SCALE");
    if (text != NULL && text[0] != '\0')
        s_periodScale = atof(text);
    text = getenv("KC_SHIM_PERIOD_FILE");
    if (text != NULL && text[0] != '\0')
        s_periodFd = open(text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    s_clockNanosleep = (clock_nanosleep_fn)dlsym(RTLD_NEXT, "clock_nanosleep");
    unsetenv("LD_PRELOAD");
}

static struct timespec scaled(double seconds)
{
    struct timespec ts;
    if (seconds < 0)
        seconds = 0;
    ts.tv_sec = (time_t)seconds;
    ts.tv_nsec = (long)((seconds - (double)ts.tv_sec) * 1e9);
    return ts;
}

/* The wait itself, relative, on the monotonic clock (EINTR reported). */
static int wait_for(double seconds)
{
    struct timespec ts = scaled(seconds);
    int ret = s_clockNanosleep(CLOCK_MONOTONIC, 0, &ts, NULL);
    if (ret != 0) {
        errno = ret;
        return -1;
    }
    return 0;
}

static void count_period(void)
{
    long n = __atomic_add_fetch(&s_periods, 1, __ATOMIC_SEQ_CST);
    if (s_periodFd >= 0) {
        char line[32];
        int len = snprintf(line, sizeof line, "%20ld\n", n);
        if (pwrite(s_periodFd, line, (size_t)len, 0) < 0) {
            /* best effort */
        }
    }
}

static int whole_seconds(const struct timespec *req)
{
    return req != NULL && req->tv_nsec == 0 && req->tv_sec >= 1;
}

unsigned int sleep(unsigned int seconds)
{
    wait_for(seconds * s_sleepScale);
    return 0;
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
    if (wait_for(req->tv_sec * s_periodScale) != 0) {
        /* interrupted: nothing of the shortened wait is left */
        if (rem != NULL)
            memset(rem, 0, sizeof *rem);
        return -1;
    }
    count_period();
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *req,
                    struct timespec *rem)
{
    if (flags != 0 || !whole_seconds(req))
        return s_clockNanosleep(clock, flags, req, rem);
    if (wait_for(req->tv_sec * s_periodScale) != 0) {
        int err = errno;
        if (rem != NULL)
            memset(rem, 0, sizeof *rem);
        return err;
    }
    count_period();
    return 0;
}
