/*
 * The maintenance timer thread.  At its start it records its own id in
 * "/tmp/cloud_timer_pid" (the init script's stop signals that thread),
 * detects the radios and the beta mode; then it ticks once a second and
 * runs the periodic checks: the pause while the web configuration reloads
 * ("/tmp/luci_reload_cmd"), time synchronisation, remote-access expiry,
 * system-log streaming and event notifications.  A signal that interrupts
 * the one-second wait (SIGTERM aimed at this thread) saves the queues and
 * kills every instance of the agent.
 */
#define KC_MODULE "kapri_util.cpp"
#include "client/timer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>

#include "client/sigterm.h"
#include "linux/thread.h"
#include "sdk/nimb_sdk.h"
#include "sdk/queue_backup.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/settings.h"
#include "util/radios.h"

static std::atomic<int> s_ticks{0};

int timerTicks(void)
{
    return s_ticks;
}

/* select() with no descriptors: its result (0 after the full wait, -1 with
 * EINTR when a signal handler ran). */
static int oneSecondWait(int seconds)
{
    struct timeval timeout = {seconds, 0};
    return select(0, NULL, NULL, NULL, &timeout);
}

static void recordTimerThread(void)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "echo %d > %s", currentThreadId(), "/tmp/cloud_timer_pid");
    run_system_command(cmd);
}

static void detectBetaMode(void)
{
    char *out = run_shell_command("uci get korvatCloud.korvatCloud.beta_mode", 1024);
    if (atoi(out) == 1)
        g_betaMode = 1;
    free_text(out);
    /* the timer's own line, whichever helper reads the setting */
    KC_DEBUG_AS(currentThreadId(), "timerHandler", 1550, "=== beta_mode=%d\n", g_betaMode.load());
}

/* The pause flag follows "/tmp/luci_reload_cmd". */
static int luciReloadCheck(void)
{
    int paused = access("/tmp/luci_reload_cmd", F_OK) == 0;
    g_luciReloadPause = paused;
    return paused;
}

static void runChores(int tick)
{
    int eventFreeSlots = sendQueueFreeSlots(SEND_QUEUE_EVENT);
    int paused = luciReloadCheck();
    timeSyncCheck(tick);
    remoteAccessExpiryCheck();
    logStreamCheck(tick);
    eventCheck(eventFreeSlots, paused);
}

void *timerHandler(void *)
{
    /* the one thread besides the main one that SIGTERM may reach */
    unblockSigterm();
    recordTimerThread();
    detect_support_radio();
    KC_DEBUG_AT(1544, "=== support2G=%d, support5G=%d\n", g_support2G.load(),
                g_support5G.load());
    detectBetaMode();
    for (;;) {
        int ret = oneSecondWait(1);
        if (ret == 0) {
            runChores(++s_ticks);
        } else if (ret == -1 && errno == EINTR) {
            /* the SIGTERM's own work (which normally ends the process)
             * comes first, as when the handler ran on this thread */
            waitSigtermHandled();
            printf("[%s %d]\n", "timerHandler", 1567);
            backup_all_queues_for_next_start();
            run_system_command("killall -9 korvat-cloud");
        } else {
            printf("### Alive timer error !! ###\n");
            return NULL;
        }
    }
}
