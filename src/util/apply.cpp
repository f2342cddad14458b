/* The apply runner and its busy flag. */
#define KC_MODULE "kapri_util.cpp"
#include "util/apply.h"

#include <cstdio>

#include "util/shell.h"

std::atomic<int> g_applyDone{1};

void cloud_action_apply(void)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s cloud_action_apply", KAPRI_UTIL_SCRIPT);
    g_applyDone = 0;
    run_system_command(cmd);
    g_applyDone = 1;
}
