/*
 * The device's identity and LAN settings: "dxGetAbout", and the reply that
 * must have left the device before new LAN settings are applied.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <cstdlib>
#include <cstring>

#include "json/json_parser.h"
#include "sdk/nimb_sdk.h"
#include "util/debug.h"
#include "util/kapri_util.h"

/* ---- helpers ---- */

std::atomic<cJSON *> g_pendingAckReply{nullptr};

int pendingAckReplySent(const cJSON *sent)
{
    const char *id = jsonGetString(sent, "id");
    if (id == NULL)
        return 0; /* notifications never match */
    cJSON *pending = g_pendingAckReply;
    if (pending == NULL)
        return 0;
    const char *pendingId = jsonGetString(pending, "id");
    if (pendingId == NULL || strcmp(pendingId, id) != 0)
        return 0;
    g_pendingAckReply = NULL;
    return 1;
}

/* Adds a getter's text and frees it (the runner's error text is kept). */
static void addOwnedText(cJSON *object, const char *name, char *text)
{
    jsonAddString(object, name, text);
    free_shell_output(text);
}

/* ---- handlers ---- */

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
