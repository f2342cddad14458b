/*
 * The agent's own settings (UCI package korvatCloud) loaded at start-up,
 * the update-interval names, and the process-wide values they set.  The
 * values are plain process-wide integers (atomic where threads meet);
 * nothing here allocates for the caller.
 */
#ifndef KC_UTIL_SETTINGS_H
#define KC_UTIL_SETTINGS_H

#include <atomic>

/* Seconds of an update-interval name ("1_HOUR" 3600, "NONE" 0, ...);
 * -1 for any other text or NULL (names compared exactly). */
int frequency_name_to_seconds(const char *name);

/* 1 while "/tmp/luci_reload_cmd" exists: dispatch and status updates wait. */
extern std::atomic<int> g_luciReloadPause;

/* The time-sync base tick and period (from "ts_autoUpdate"; 0 or less:
 * no sync). */
extern int g_timeSyncBase;
extern int g_timeSyncPeriod;
/* Seconds a remote-access mapping lives (600 until loaded; the loaded
 * value, -1 when unset, replaces it). */
extern std::atomic<int> g_remoteAccessTimeout;

/* Reads "ts_autoUpdate" and "remote_access_timeout" into the values
 * above, printing "Load uci configurations to global variables...". */
void load_settings_to_globals(void);

#endif
