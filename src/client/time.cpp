/*
 * The device's time: periodic synchronisation with the time server every
 * "korvatCloud.korvatCloud.ts_autoUpdate" period (a maintenance-timer
 * check).
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"
#include "client/timer.h"

#include "util/debug.h"
#include "util/kapri_util.h"

/* ---- periodic check ---- */

void timeSyncCheck(int tick)
{
    int period = g_timeSyncPeriod;
    if (period <= 0 || (tick - g_timeSyncBase) % period != 0)
        return;
    if (g_debugFlag)
        run_system_command("date >> /tmp/ts_autoupdate");
    run_system_command("luci-reload ntpclient");
}
