/* The radios the device has, from the utility script. */
#define KC_MODULE "kapri_util.cpp"
#include "util/radios.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "util/debug.h"
#include "util/shell.h"
#include "util/text.h"

std::atomic<int> g_support2G{0};
std::atomic<int> g_support5G{0};

void set_support_radio_from(const char *answer)
{
    cJSON *root = answer != NULL ? cJSON_Parse(answer) : NULL;
    if (root == NULL)
        return;
    for (const char *name : {"wifi0", "wifi1"}) {
        const cJSON *item = cJSON_GetObjectItem(root, name);
        if (!cJSON_IsString(item))
            continue;
        if (strcmp(item->valuestring, "2.4G") == 0)
            g_support2G = 1;
        else if (strcmp(item->valuestring, "5G") == 0)
            g_support5G = 1;
    }
    cJSON_Delete(root);
}

void detect_support_radio(void)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s get_support_radio | tr -d '\n'", KAPRI_UTIL_SCRIPT);
    char *out = run_shell_command(cmd, 16384);
    set_support_radio_from(out);
    free_text(out);
}
