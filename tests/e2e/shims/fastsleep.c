/*
 * Test shim preloaded into the agent (LD_PRELOAD) to fast-forward its
 * reconnect back-off: every sleep(N) is written as "sleep N" to the file
 * named by FASTSLEEP_LOG and then lasts N * FASTSLEEP_SCALE seconds
 * (default 0.001).  The agent binary itself is not changed.  The shim is
 * for the agent alone: it drops LD_PRELOAD at load time, so the device tools
 * the agent runs do not inherit it (under qemu they could not load it).
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

__attribute__((constructor)) static void fastsleep_init(void)
{
    unsetenv("LD_PRELOAD");
}

unsigned int sleep(unsigned int seconds)
{
    const char *log = getenv("FASTSLEEP_LOG");
    if (log != NULL && log[0] != '\0') {
        int fd = open(log, O_WRONLY | O_APPEND | O_CREAT, 0644);
        if (fd >= 0) {
            char line[32];
            int n = snprintf(line, sizeof line, "sleep %u\n", seconds);
            if (write(fd, line, (size_t)n) < 0) {
                /* nothing to do: the log is best effort */
            }
            close(fd);
        }
    }
    double scale = 0.001;
    const char *text = getenv("FASTSLEEP_SCALE");
    if (text != NULL && text[0] != '\0')
        scale = atof(text);
    double total = seconds * scale;
    struct timespec ts;
    ts.tv_sec = (time_t)total;
    ts.tv_nsec = (long)((total - (double)ts.tv_sec) * 1e9);
    nanosleep(&ts, NULL);
    return 0;
}
