/*
 * The access point's live state and configuration, as the server asks for
 * it: "vekGetSystemConfig" and "vekSetSystemConfig" (device name and band
 * steering), "vekGetStatus", "vekGetLanStatus", "vekGetRadioStatus",
 * "vekGetGuestNetworkStatus", "vekGetNetworkStatus", "vekGetClientStatus",
 * "vekGetRadioConfig" and "vekGetNetworkConfig".
 *
 * The figures come from the utility script: a sub-command prints either
 * one value or a JSON document, which is re-shaped into the reply (or cut
 * down to fixed key lists with json_filter_copy).  A sub-command that
 * prints nothing leaves out what would have come from it; a JSON answer
 * that does not parse is refused with -32602.  More radios or guest
 * networks than the device can have (three or more) give 10001.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"
#include "client/ap_status.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/reply.h"
#include "json/json_filter.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "client/status_updates.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/shell_quote.h"
#include "util/radios.h"

/* ---- helpers ---- */

/* Cap of a JSON answer of the utility script, and of a one-value answer. */
static const int kJsonAnswerLimit = 16384;
static const int kValueLimit = 20;

static const char kSystemName[] = "system.system.SystemName";
static const char kSnmpName[] = "snmpd.snmpv2.sysName";
static const char kBandSteering[] = "clientcontrol.bandsteer.enable";
static const char kAllClients[] = "00:00:00:00:00:00";

/* The data text of a refused network index. */
static const char kInvalidIndex[] = "Invalid network index.";
/* The data text of a steering request to a device with one radio. */
static const char kSteeringUnsupported[] = "vk310 NOT support.";

static const char *const kNetworkStatusKeys[] = {"deviceId", "networks", NULL};
static const char *const kNetworkStatusItems[] = {"networkIndex", "enabled", "mac", "ssid",
                                                  "interface", "clients", "rx", "tx", NULL};
static const char *const kClientStatusKeys[] = {"deviceId", "clients", NULL};
static const char *const kClientStatusItems[] = {"cmac", "ssid", "rx", "tx", "signal",
                                                 "name", "interface", NULL};
static const char *const kRadioConfigKeys[] = {"deviceId", "interface", "enabled", "opMode",
                                               "wirelessMode", NULL};
static const char *const kPersonalNetworkKeys[] = {
    "deviceId", "networkIndex", "mac", "ssid", "interface", "enabled", "security",
    "password", "vlanId", "broadcastEnabled", "separationEnabled", NULL};
static const char *const kEnterpriseNetworkKeys[] = {
    "deviceId", "networkIndex", "mac", "ssid", "interface", "enabled", "security",
    "radiusServer", "radiusPort", "radiusSecret", "vlanId", "broadcastEnabled",
    "separationEnabled", NULL};

/* Output of cmd (at most limit bytes), or NULL when it printed nothing or
 * could not run. */
static char *outputOf(const char *cmd, int limit)
{
    char *out = run_shell_command(cmd, limit);
    if (out == SHELL_ERROR_TEXT || out == NULL || out[0] == '\0') {
        free_text(out);
        return NULL;
    }
    return out;
}

/* The one-value answer of a sub-command ("%s <sub> | tr -d '\n'"), or NULL. */
static char *scriptValue(const char *subCommand)
{
    char cmd[256];
    snprintf(cmd, sizeof cmd, "%s %s | tr -d '\n'", KAPRI_UTIL_SCRIPT, subCommand);
    return outputOf(cmd, kValueLimit);
}

/* Adds the one-value answer as a string member; left out without one. */
static void addValueText(cJSON *object, const char *name, const char *subCommand)
{
    char *value = scriptValue(subCommand);
    if (value != NULL)
        jsonAddString(object, name, value);
    free_text(value);
}

/* Adds the one-value answer as a number (atof); left out without one. */
static void addValueNumber(cJSON *object, const char *name, const char *subCommand)
{
    char *value = scriptValue(subCommand);
    if (value != NULL)
        jsonAddNumber(object, name, atof(value));
    free_text(value);
}

/* A string member of an answer object, "" when it is missing. */
static const char *textOf(const cJSON *object, const char *name)
{
    const char *text = jsonGetString(object, name);
    return text != NULL ? text : "";
}

static int isEnabledStatus(const cJSON *object)
{
    return strcmp(textOf(object, "Status"), "Enabled") == 0;
}

/*
 * The "radios" array of the radio status from a "WifiInfo" answer, each
 * radio as "interface", "enabled", "rx", "tx", "networks", "clients" (the
 * periodic status update has its own order).  1 when added, 0 when there
 * is no answer or it is not JSON (no member), -1 for three radios or more.
 */
int addRadioStatusObjects(cJSON *container, const char *wifiInfo)
{
    cJSON *info = wifiInfo != NULL ? jsonParse(wifiInfo) : NULL;
    if (info == NULL)
        return 0;
    int radios = jsonGetInt(info, "RadioNum");
    if (radios >= 3) {
        jsonDelete(info);
        return -1;
    }
    cJSON *array = jsonCreateArray();
    for (int i = 0; i < radios; i++) {
        const cJSON *dev = jsonGetItem(info, i == 0 ? "Dev2G" : "Dev5G");
        cJSON *radio = jsonCreateObject();
        jsonAddString(radio, "interface", i == 0 ? "2.4GHz" : "5GHz");
        jsonAddBool(radio, "enabled", isEnabledStatus(dev));
        jsonAddNumber(radio, "rx", atof(textOf(dev, "RxByte")));
        jsonAddNumber(radio, "tx", atof(textOf(dev, "TxByte")));
        jsonAddInt(radio, "networks", jsonGetInt(dev, "NetworkNum"));
        jsonAddInt(radio, "clients", jsonGetInt(dev, "ClientNum"));
        jsonAddToArray(array, radio);
    }
    jsonAddItem(container, "radios", array);
    jsonDelete(info);
    return 1;
}

/* "WifiInfo" as one line of JSON (caller frees), or NULL. */
static char *wifiInfoAnswer(void)
{
    return outputOf(KAPRI_UTIL_SCRIPT " WifiInfo | tr -d '\n'", kJsonAnswerLimit);
}

/*
 * The "network" array of the guest network status from a
 * "GuestNetworkInfo" answer.  1 when added, 0 without an answer or when it
 * is not JSON, -1 for three guest networks or more.
 */
int addGuestNetworkObjects(cJSON *container, const char *guestInfo)
{
    cJSON *info = guestInfo != NULL ? jsonParse(guestInfo) : NULL;
    if (info == NULL)
        return 0;
    int networks = jsonGetInt(info, "GuestNetworkNum");
    if (networks >= 3) {
        jsonDelete(info);
        return -1;
    }
    cJSON *array = jsonCreateArray();
    for (int i = 0; i < networks; i++) {
        const cJSON *dev = jsonGetItem(info, i == 0 ? "Dev2G" : "Dev5G");
        cJSON *network = jsonCreateObject();
        jsonAddInt(network, "networkIndex", jsonGetInt(dev, "NetworkIndex"));
        jsonAddBool(network, "enabled", isEnabledStatus(dev));
        jsonAddString(network, "mac", textOf(dev, "Mac"));
        jsonAddString(network, "ssid", textOf(dev, "SSID"));
        jsonAddString(network, "interface", textOf(dev, "Interface"));
        jsonAddInt(network, "clients", jsonGetInt(dev, "ClientNum"));
        jsonAddNumber(network, "rx", atof(textOf(dev, "RxByte")));
        jsonAddNumber(network, "tx", atof(textOf(dev, "TxByte")));
        jsonAddToArray(array, network);
    }
    jsonAddItem(container, "network", array);
    jsonDelete(info);
    return 1;
}

/*
 * Runs a sub-command that prints a JSON document (cmd whole, no tr).  An
 * answer that does not parse refuses the request with -32602: 0.
 * Otherwise 1, with *answer the parsed tree (caller deletes), or NULL when
 * the command printed nothing.
 */
static int queryScript(const cJSON *request, const char *cmd, cJSON **answer)
{
    *answer = NULL;
    char *out = outputOf(cmd, kJsonAnswerLimit);
    if (out == NULL)
        return 1;
    *answer = jsonParse(out);
    free_text(out);
    if (*answer != NULL)
        return 1;
    replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
    return 0;
}

/* Replies with the filtered copy of answer as "result" (no "result" when
 * there was no answer) and deletes answer. */
static void replyFiltered(const cJSON *request, cJSON *answer, const char *const *top_keys,
                          const char *const *item_keys)
{
    cJSON *reply = initJsonRpcObject();
    addJsonRpcId(request, reply, "id");
    if (answer != NULL)
        jsonAddItem(reply, "result", json_filter_copy(answer, top_keys, item_keys));
    jsonDelete(answer);
    replyResult(reply);
}

/* The enterprise key list for "WPA2" and "WPA MIXED", else the personal one. */
static const char *const *networkConfigKeys(const cJSON *answer)
{
    const char *security = jsonGetString(answer, "security");
    if (security != NULL && (strcmp(security, "WPA2") == 0 || strcmp(security, "WPA MIXED") == 0))
        return kEnterpriseNetworkKeys;
    return kPersonalNetworkKeys;
}

/* 1 when index names a network: 0..7 always, 50..57 with a 5 GHz radio. */
static int isValidNetworkIndex(int index)
{
    if (index >= 0 && index <= 7)
        return 1;
    return index >= 50 && index <= 57 && g_support5G;
}

/* The guest network of one band as a "guestNetworks" entry; nothing when
 * the script prints nothing or no JSON for it. */
static void addGuestNetworkEntry(cJSON *array, const char *band)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s vekGetGuestNetworkConfig result %s", KAPRI_UTIL_SCRIPT, band);
    char *out = outputOf(cmd, kJsonAnswerLimit);
    cJSON *answer = out != NULL ? jsonParse(out) : NULL;
    free_text(out);
    if (answer == NULL)
        return;
    cJSON *guest = jsonCreateObject();
    jsonAddBool(guest, "enabled", jsonGetInt(answer, "guestEnabled") != 0);
    jsonAddString(guest, "mac", textOf(answer, "mac"));
    jsonAddString(guest, "ssid", textOf(answer, "ssid"));
    jsonAddString(guest, "interface", textOf(answer, "interface"));
    jsonAddToArray(array, guest);
    jsonDelete(answer);
}

/* A changed device name goes to SNMP and the system, each committed at
 * once (every commit commits all packages).  1 when it changed. */
static int renameSystem(const char *name)
{
    char *current = uci_get(kSystemName);
    int changed = current != NULL && current != SHELL_ERROR_TEXT && strcmp(current, name) != 0;
    free_text(current);
    if (!changed)
        return 0;
    uci_set(kSnmpName, name);
    uci_commit(NULL);
    uci_set(kSystemName, name);
    uci_commit(NULL);
    return 1;
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

/*
 * Adds to result the objects add() makes from a device answer (freed here)
 * and queues the reply; a device state add() refuses (-1, three radios or
 * more) is answered with the device-state error instead.
 */
static void replyWithAnswerObjects(const cJSON *request, cJSON *reply, cJSON *result,
                                   char *answer, int (*add)(cJSON *, const char *))
{
    int added = add(result, answer);
    free_text(answer);
    if (added < 0) {
        jsonDelete(reply);
        replyRefusal(request, refusal(KC_ERROR_DEVICE_STATE));
        return;
    }
    replyResult(reply);
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
    int changed = renameSystem(name);
    if (g_support5G)
        changed |= setBandSteering(steering);
    replyDeviceId(request);
    if (changed)
        cloud_action_apply();
}

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
    addValueNumber(lan, "rx", "GetSysTxRx eth0 0 rx bytes");
    addValueNumber(lan, "tx", "GetSysTxRx eth0 0 tx bytes");
    jsonAddItem(result, "lan", lan);

    /* the same radio objects as the periodic status update */
    replyWithAnswerObjects(request, reply, result, wifiInfoAnswer(), add_radio_objects);
}

void vekGetLanStatusHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    addValueText(result, "speed", "vekGetLanStatus speed");
    addValueText(result, "duplexMode", "vekGetLanStatus duplexMode");
    addValueNumber(result, "rx", "vekGetLanStatus rx");
    addValueNumber(result, "tx", "vekGetLanStatus tx");
    replyResult(reply);
}

void vekGetRadioStatusHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    replyWithAnswerObjects(request, reply, result, wifiInfoAnswer(), addRadioStatusObjects);
}

void vekGetGuestNetworkStatusHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    char *guestInfo =
        outputOf(KAPRI_UTIL_SCRIPT " GuestNetworkInfo | tr -d '\n'", kJsonAnswerLimit);
    replyWithAnswerObjects(request, reply, result, guestInfo, addGuestNetworkObjects);
}

void vekGetNetworkStatusHandler(const cJSON *request)
{
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *answer = NULL;
    if (!queryScript(request, KAPRI_UTIL_SCRIPT " vekGetNetworkStatus result", &answer))
        return;
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
    cJSON *answer = NULL;
    int answered = queryScript(request, cmd, &answer);
    free(cmd);
    if (answered)
        replyFiltered(request, answer, kClientStatusKeys, kClientStatusItems);
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
    cJSON *answer = NULL;
    if (queryScript(request, cmd, &answer))
        replyFiltered(request, answer, kRadioConfigKeys, NULL);
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
    if (queryScript(request, cmd, &answer))
        replyFiltered(request, answer, networkConfigKeys(answer), NULL);
}
