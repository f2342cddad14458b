/*
 * The agent's system-log capture.  "logread -f" runs in the background;
 * the shell that starts it writes its process id ($!) to the id file.  The
 * stop checks that the process is still a logread (its name in /proc)
 * before it signals it, so a recycled id is never hit.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/log_capture.h"

#include <unistd.h>

#include "util/shell.h"

static const char kStartCapture[] =
    "logread -f > " LOG_CAPTURE_FILE "& echo $! > " LOG_CAPTURE_PID_FILE;

static const char kStopCapture[] =
    "pid=$(cat " LOG_CAPTURE_PID_FILE " 2>/dev/null); "
    "[ -n \"$pid\" ] && [ \"$(cat /proc/$pid/comm 2>/dev/null)\" = logread ] && kill $pid; "
    "rm -f " LOG_CAPTURE_PID_FILE;

void stopOwnLogCapture(void)
{
    run_system_command(kStopCapture);
}

void startLogCapture(void)
{
    stopOwnLogCapture();
    if (access(LOG_CAPTURE_FILE, F_OK) == 0)
        run_system_command("rm " LOG_CAPTURE_FILE);
    run_system_command(kStartCapture);
}

void stopLogCapture(void)
{
    stopOwnLogCapture();
    run_system_command("rm " LOG_CAPTURE_FILE);
}

void restartLogCapture(void)
{
    stopOwnLogCapture();
    run_system_command("rm " LOG_CAPTURE_FILE);
    run_system_command(kStartCapture);
}

void stopLeftoverLogCapture(void)
{
    if (access(LOG_CAPTURE_PID_FILE, F_OK) != 0)
        return;
    stopOwnLogCapture();
    run_system_command("rm -f " LOG_CAPTURE_FILE);
}
