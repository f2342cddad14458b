/*
 * The access point's live state, as the server asks for it: "vekGetStatus",
 * "vekGetLanStatus", "vekGetRadioStatus", "vekGetGuestNetworkStatus",
 * "vekGetNetworkStatus" and "vekGetClientStatus".  Its configuration is in
 * ap_config.cpp.
 *
 * The figures come from the utility script (client/script_answers.h): a
 * sub-command prints either one value or a JSON document, which is
 * re-shaped into the reply (or cut down to fixed key lists with
 * json_filter_copy).  A sub-command that prints nothing leaves out what
 * would have come from it; a JSON answer that does not parse is refused
 * with -32602.  More radios or guest networks than the device can have
 * (three or more) give 10001.
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

static const char kAllClients[] = "00:00:00:00:00:00";

static const char *const kNetworkStatusKeys[] = {"deviceId", "networks", NULL};
static const char *const kNetworkStatusItems[] = {"networkIndex", "enabled", "mac", "ssid",
                                                  "interface", "clients", "rx", "tx", NULL};
static const char *const kClientStatusKeys[] = {"deviceId", "clients", NULL};
static const char *const kClientStatusItems[] = {"cmac", "ssid", "rx", "tx", "signal",
                                                 "name", "interface", NULL};
/* The guest network of one band as a "guestNetworks" entry; nothing when
 * the script prints nothing or no JSON for it. */
static void addGuestNetworkEntry(cJSON *array, const char *band)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s vekGetGuestNetworkConfig result %s", KAPRI_UTIL_SCRIPT, band);
    cJSON *answer = NULL;
    /* an answer that does not parse leaves the entry out: no refusal */
    (void)scriptJson(cmd, &answer);
    if (answer == NULL)
        return;
    cJSON *guest = jsonCreateObject();
    jsonAddBool(guest, "enabled", jsonGetInt(answer, "guestEnabled") != 0);
    jsonAddString(guest, "mac", answerText(answer, "mac"));
    jsonAddString(guest, "ssid", answerText(answer, "ssid"));
    jsonAddString(guest, "interface", answerText(answer, "interface"));
    jsonAddToArray(array, guest);
    jsonDelete(answer);
}

/* A re-shaped answer with more radios or guest networks than the device
 * can have (added -1) refuses the request with 10001. */
static Refusal deviceStateOf(int added)
{
    return added < 0 ? refusal(KC_ERROR_DEVICE_STATE) : accepted();
}

/* The radio objects of the "WifiInfo" answer into result, members in
 * order. */
static Refusal addRadios(cJSON *result, RadioMemberOrder order)
{
    char *wifiInfo = scriptAnswer("WifiInfo", SCRIPT_JSON_LIMIT);
    int added = addRadioObjects(result, wifiInfo, order);
    free_text(wifiInfo);
    return deviceStateOf(added);
}

static Refusal addRadioStatus(cJSON *result)
{
    return addRadios(result, RADIO_STATUS_ORDER);
}

static Refusal addGuestNetworkStatus(cJSON *result)
{
    char *guestInfo = scriptAnswer("GuestNetworkInfo", SCRIPT_JSON_LIMIT);
    int added = addGuestNetworkObjects(result, guestInfo);
    free_text(guestInfo);
    return deviceStateOf(added);
}

/* The body of the radio and guest network status handlers: the result
 * with what add() puts in it, or add()'s refusal. */
static void answerObjectsHandler(const cJSON *request, Refusal (*add)(cJSON *result))
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    Refusal why = add(result);
    if (isRefused(why)) {
        jsonDelete(reply);
        replyRefusal(request, why);
        return;
    }
    replyResult(reply);
}

/* ---- handlers ---- */

void vekGetStatusHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);

    cJSON *system = jsonCreateObject();
    jsonAddInt(system, "cpu", get_cpu_usage());
    jsonAddNumber(system, "memFree", get_free_memory_bytes());
    jsonAddNumber(system, "memUsed", get_used_memory_bytes());
    jsonAddItem(result, "system", system);

    cJSON *lan = jsonCreateObject();
    addScriptNumber(lan, "rx", "GetSysTxRx eth0 0 rx bytes");
    addScriptNumber(lan, "tx", "GetSysTxRx eth0 0 tx bytes");
    jsonAddItem(result, "lan", lan);

    /* the same radio objects as the periodic status update */
    Refusal why = addRadios(result, STATUS_UPDATE_ORDER);
    if (isRefused(why)) {
        jsonDelete(reply);
        replyRefusal(request, why);
        return;
    }
    replyResult(reply);
}

void vekGetLanStatusHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    addScriptText(result, "speed", "vekGetLanStatus speed");
    addScriptText(result, "duplexMode", "vekGetLanStatus duplexMode");
    addScriptNumber(result, "rx", "vekGetLanStatus rx");
    addScriptNumber(result, "tx", "vekGetLanStatus tx");
    replyResult(reply);
}

void vekGetRadioStatusHandler(const cJSON *request)
{
    answerObjectsHandler(request, addRadioStatus);
}

void vekGetGuestNetworkStatusHandler(const cJSON *request)
{
    answerObjectsHandler(request, addGuestNetworkStatus);
}

void vekGetNetworkStatusHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *answer = NULL;
    Refusal why = scriptJson(KAPRI_UTIL_SCRIPT " vekGetNetworkStatus result", &answer);
    if (isRefused(why)) {
        replyRefusal(request, why);
        return;
    }
    cJSON *reply = initJsonRpcObject();
    addJsonRpcId(request, reply, "id");
    /* "deviceId" as the script gives it; without an answer only the
     * guest networks are reported */
    cJSON *result = answer != NULL
                        ? json_filter_copy(answer, kNetworkStatusKeys, kNetworkStatusItems)
                        : jsonCreateObject();
    jsonDelete(answer);
    jsonAddItem(reply, "result", result);

    cJSON *guests = jsonCreateArray();
    if (g_support2G)
        addGuestNetworkEntry(guests, "2.4GHz");
    if (g_support5G)
        addGuestNetworkEntry(guests, "5GHz");
    jsonAddItem(result, "guestNetworks", guests);
    replyResult(reply);
}

void vekGetClientStatusHandler(const cJSON *request)
{
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *cmac = jsonGetString(params, "cmac");
    if (cmac == NULL || cmac[0] == '\0')
        cmac = kAllClients;
    char *word = shell_quote(cmac);
    size_t size = strlen(KAPRI_UTIL_SCRIPT) + strlen(word) + 40;
    char *cmd = static_cast<char *>(malloc(size));
    snprintf(cmd, size, "%s vekGetClientStatus result %s", KAPRI_UTIL_SCRIPT, word);
    free_text(word);
    KC_DEBUG("sys_cmd = %s\n", cmd);
    replyFilteredAnswer(request, cmd, kClientStatusKeys, kClientStatusItems);
    free(cmd);
}
