/*
 * The access point's configuration, as the server asks for it and sets it:
 * "vekGetSystemConfig" and "vekSetSystemConfig" (device name and band
 * steering), "vekGetRadioConfig" and "vekGetNetworkConfig".  Its live
 * state is in ap_status.cpp.
 *
 * The radio and network configuration come from the utility script
 * (client/script_answers.h) as JSON documents cut down to fixed key lists
 * with json_filter_copy; a document that does not parse is refused with
 * -32602.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/reply.h"
#include "client/script_answers.h"
#include "json/json_filter.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/device_name.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/shell_quote.h"
#include "util/radios.h"
#include "util/wlan_profile.h"

/* ---- helpers ---- */

static const char kSystemName[] = "system.system.SystemName";
static const char kBandSteering[] = "clientcontrol.bandsteer.enable";

/* The data text of a refused network index. */
static const char kInvalidIndex[] = "Invalid network index.";
/* The data text of a steering request to a device with one radio. */
static const char kSteeringUnsupported[] = "vk310 NOT support.";

static const char *const kRadioConfigKeys[] = {"deviceId", "interface", "enabled", "opMode",
                                               "wirelessMode", NULL};
static const char *const kPersonalNetworkKeys[] = {
    "deviceId", "networkIndex", "mac", "ssid", "interface", "enabled", "security",
    "password", "vlanId", "broadcastEnabled", "separationEnabled", NULL};
static const char *const kEnterpriseNetworkKeys[] = {
    "deviceId", "networkIndex", "mac", "ssid", "interface", "enabled", "security",
    "radiusServer", "radiusPort", "radiusSecret", "vlanId", "broadcastEnabled",
    "separationEnabled", NULL};

/* The enterprise key list for "WPA2" and "WPA MIXED", else the personal one. */
static const char *const *networkConfigKeys(const cJSON *answer)
{
    const char *security = jsonGetString(answer, "security");
    if (security != NULL && (strcmp(security, "WPA2") == 0 || strcmp(security, "WPA MIXED") == 0))
        return kEnterpriseNetworkKeys;
    return kPersonalNetworkKeys;
}

/* Copies one option of the 2.4 GHz guest network to the 5 GHz one. */
static void copyGuestOption(const char *option)
{
    char from[64];
    char to[64];
    snprintf(from, sizeof from, "wireless.w0_index25.%s", option);
    snprintf(to, sizeof to, "wireless.w1_index25.%s", option);
    char *value = uci_get(from);
    if (value != NULL && value != SHELL_ERROR_TEXT)
        uci_set(to, value);
    free_text(value);
}

/* Stages the band-steering switch (not committed); enabling it gives the
 * 5 GHz guest network the 2.4 GHz one's name and credentials.  1 when it
 * changed. */
static int setBandSteering(int requested)
{
    char *current = uci_get(kBandSteering);
    int now = atoi(current != SHELL_ERROR_TEXT && current != NULL ? current : "");
    free_text(current);
    if (now == requested)
        return 0;
    KC_DEBUG("uci_path = %s\n", kBandSteering);
    uci_set(kBandSteering, requested == 1 ? "1" : "0");
    if (requested == 1) {
        copyGuestOption("ssid");
        copyGuestOption("encryption");
        copyGuestOption("key");
    }
    return 1;
}

/* ---- handlers ---- */

void vekGetSystemConfigHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    char *name = uci_get(kSystemName);
    if (name == NULL || name == SHELL_ERROR_TEXT || name[0] == '\0') {
        free_text(name);
        replyRefusal(request, refusal(KC_ERROR_DEVICE_STATE));
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    jsonAddString(result, "name", name);
    free_text(name);
    if (g_support5G) {
        char *steering = uci_get(kBandSteering);
        if (steering != NULL && steering != SHELL_ERROR_TEXT && steering[0] != '\0')
            jsonAddBool(result, "steeringEnabled", atoi(steering) != 0);
        free_text(steering);
    }
    replyResult(reply);
}

void vekSetSystemConfigHandler(const cJSON *request)
{
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *name = jsonGetString(params, "name");
    int steering = jsonGetIntOrAbsent(params, "steeringEnabled");
    if (name == NULL || (g_support5G && steering == JSON_ABSENT_INT)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (!g_support5G && steering != JSON_ABSENT_INT) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS, kSteeringUnsupported));
        return;
    }
    int changed = renameDevice(name);
    if (g_support5G)
        changed |= setBandSteering(steering);
    replyDeviceId(request);
    if (changed)
        cloud_action_apply();
}

void vekGetRadioConfigHandler(const cJSON *request)
{
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *interface = jsonGetString(params, "interface");
    if (interface == NULL || interface[0] == '\0') {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    char *upper = str_to_upper(interface);
    int radio = strcmp(upper, "2.4GHZ") == 0 ? 0 : strcmp(upper, "5GHZ") == 0 ? 1 : -1;
    free_text(upper);
    if (radio < 0) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s vekGetRadioConfig result %d", KAPRI_UTIL_SCRIPT, radio);
    KC_DEBUG("sys_cmd = %s\n", cmd);
    replyFilteredAnswer(request, cmd, kRadioConfigKeys, NULL);
}

void vekGetNetworkConfigHandler(const cJSON *request)
{
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    int index = jsonGetInt(params, "networkIndex");
    (void)jsonGetString(params, "mac"); /* read, not used */
    if (!isValidNetworkIndex(index)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS, kInvalidIndex));
        return;
    }
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s vekGetNetworkConfig result %d", KAPRI_UTIL_SCRIPT, index);
    KC_DEBUG("sys_cmd = %s\n", cmd);
    cJSON *answer = NULL;
    Refusal why = scriptJson(cmd, &answer);
    if (isRefused(why)) {
        replyRefusal(request, why);
        return;
    }
    replyResult(filteredReply(request, answer, networkConfigKeys(answer), NULL));
}
