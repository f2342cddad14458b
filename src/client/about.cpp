/* "dxGetAbout": who the device is. */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <cstdlib>

#include "json/json_parser.h"
#include "sdk/nimb_sdk.h"
#include "util/debug.h"
#include "util/kapri_util.h"

/* Adds a getter's text and frees it (the runner's error text is kept). */
static void addOwnedText(cJSON *object, const char *name, char *text)
{
    jsonAddString(object, name, text);
    free_shell_output(text);
}

void dxGetAboutHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    if (requireDeviceParams(request) == NULL)
        return;
    cJSON *result = NULL;
    cJSON *reply = initDeviceResult(request, &result);
    jsonAddString(result, "macAddress", g_deviceMac);
    addOwnedText(result, "firmware", get_firmware_version(3));
    addOwnedText(result, "model", get_model_name());
    addOwnedText(result, "serviceTag", run_shell_command("sntool | tr -d '\\n'", 100));
    addOwnedText(result, "lanAddress", get_lan_ip_address());
    writeJsonReply(reply);
    KC_DEBUG("=== END ===\n");
}
