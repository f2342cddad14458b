/* The agent's own settings loaded at start-up, and update-interval names. */
#define KC_MODULE "kapri_util.cpp"
#include "util/uci.h"
#include "util/text.h"
#include "util/settings.h"

#include <cstdio>
#include <cstring>

#include "util/debug.h"

std::atomic<int> g_luciReloadPause{0};
int g_timeSyncBase = 0;
int g_timeSyncPeriod = -1;
std::atomic<int> g_remoteAccessTimeout{600};

int frequency_name_to_seconds(const char *name)
{
    static const struct {
        const char *name;
        int seconds;
    } kNames[] = {
        {"NONE", 0},           {"1_HOUR", 3600},     {"3_HOURS", 10800},
        {"12_HOURS", 43200},   {"1_DAY", 86400},     {"10_DAYS", 864000},
        {"30_DAYS", 2592000},
    };
    if (name == NULL)
        return -1;
    for (const auto &entry : kNames) {
        if (strcmp(name, entry.name) == 0)
            return entry.seconds;
    }
    return -1;
}

void load_settings_to_globals(void)
{
    char *name = uci_get("korvatCloud.korvatCloud.ts_autoUpdate");
    printf("Load uci configurations to global variables...\n");
    g_timeSyncBase = 0;
    g_timeSyncPeriod = frequency_name_to_seconds(name);
    free_text(name);
    g_remoteAccessTimeout = uci_get_int("korvatCloud.korvatCloud.remote_access_timeout");
}
