/* The utility script's answers: run, parsed, filtered and re-shaped. */
#define KC_MODULE "nimb_client.cpp"
#include "client/script_answers.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "json/accessors.h"
#include "json/envelope.h"
#include "json/json_filter.h"
#include "util/shell.h"
#include "util/text.h"

/* ---- answers ---- */

/* Output of cmd (at most limit bytes), or NULL when it printed nothing. */
static char *answerOf(const char *cmd, int limit)
{
    char *out = run_shell_command(cmd, limit);
    if (out == NULL || out[0] == '\0') {
        free_text(out);
        return NULL;
    }
    return out;
}

char *scriptAnswer(const char *subCommand, int limit)
{
    char cmd[256];
    snprintf(cmd, sizeof cmd, "%s %s | tr -d '\n'", KAPRI_UTIL_SCRIPT, subCommand);
    return answerOf(cmd, limit);
}

void addScriptText(cJSON *object, const char *name, const char *subCommand)
{
    char *value = scriptAnswer(subCommand, SCRIPT_VALUE_LIMIT);
    if (value != NULL)
        jsonAddString(object, name, value);
    free_text(value);
}

void addScriptNumber(cJSON *object, const char *name, const char *subCommand)
{
    char *value = scriptAnswer(subCommand, SCRIPT_VALUE_LIMIT);
    if (value != NULL)
        jsonAddNumber(object, name, atof(value));
    free_text(value);
}

Refusal scriptJson(const char *cmd, cJSON **answer)
{
    *answer = NULL;
    char *out = answerOf(cmd, SCRIPT_JSON_LIMIT);
    if (out == NULL)
        return accepted();
    *answer = jsonParse(out);
    free_text(out);
    return *answer != NULL ? accepted() : refusal(JSONRPC_INVALID_PARAMS);
}

cJSON *filteredReply(const cJSON *request, cJSON *answer, const char *const *topKeys,
                     const char *const *itemKeys)
{
    cJSON *reply = initJsonRpcObject();
    addJsonRpcId(request, reply, "id");
    if (answer != NULL)
        jsonAddItem(reply, "result", json_filter_copy(answer, topKeys, itemKeys));
    jsonDelete(answer);
    return reply;
}

void replyFilteredAnswer(const cJSON *request, const char *cmd, const char *const *topKeys,
                         const char *const *itemKeys)
{
    cJSON *answer = NULL;
    Refusal why = scriptJson(cmd, &answer);
    if (isRefused(why)) {
        replyRefusal(request, why);
        return;
    }
    replyResult(filteredReply(request, answer, topKeys, itemKeys));
}

/* ---- re-shaping ---- */

const char *answerText(const cJSON *object, const char *name)
{
    const char *text = jsonGetString(object, name);
    return text != NULL ? text : "";
}

static int isEnabledStatus(const cJSON *object)
{
    return strcmp(answerText(object, "Status"), "Enabled") == 0;
}

static void fillRadio(cJSON *radio, const cJSON *dev, int i, RadioMemberOrder order)
{
    jsonAddString(radio, "interface", i == 0 ? "2.4GHz" : "5GHz");
    if (order == RADIO_STATUS_ORDER)
        jsonAddBool(radio, "enabled", isEnabledStatus(dev));
    jsonAddNumber(radio, "rx", atof(answerText(dev, "RxByte")));
    jsonAddNumber(radio, "tx", atof(answerText(dev, "TxByte")));
    jsonAddInt(radio, "networks", jsonGetInt(dev, "NetworkNum"));
    jsonAddInt(radio, "clients", jsonGetInt(dev, "ClientNum"));
    if (order == STATUS_UPDATE_ORDER)
        jsonAddBool(radio, "enabled", isEnabledStatus(dev));
}

static void fillGuestNetwork(cJSON *network, const cJSON *dev, int, RadioMemberOrder)
{
    jsonAddInt(network, "networkIndex", jsonGetInt(dev, "NetworkIndex"));
    jsonAddBool(network, "enabled", isEnabledStatus(dev));
    jsonAddString(network, "mac", answerText(dev, "Mac"));
    jsonAddString(network, "ssid", answerText(dev, "SSID"));
    jsonAddString(network, "interface", answerText(dev, "Interface"));
    jsonAddInt(network, "clients", jsonGetInt(dev, "ClientNum"));
    jsonAddNumber(network, "rx", atof(answerText(dev, "RxByte")));
    jsonAddNumber(network, "tx", atof(answerText(dev, "TxByte")));
}

/*
 * The array arrayName of one object for each of the answer's countName
 * radios or guest networks, the first from "Dev2G", the others from
 * "Dev5G", each filled by fill.  1 when added, 0 without an answer or when
 * it is not JSON, -1 for a count of three or more (the device has two
 * radios at the most).
 */
static int addDeviceObjects(cJSON *container, const char *answer, const char *countName,
                            const char *arrayName,
                            void (*fill)(cJSON *, const cJSON *, int, RadioMemberOrder),
                            RadioMemberOrder order)
{
    cJSON *info = answer != NULL ? jsonParse(answer) : NULL;
    if (info == NULL)
        return 0;
    int count = jsonGetInt(info, countName);
    if (count >= 3) {
        jsonDelete(info);
        return -1;
    }
    cJSON *array = jsonCreateArray();
    for (int i = 0; i < count; i++) {
        cJSON *object = jsonCreateObject();
        fill(object, jsonGetItem(info, i == 0 ? "Dev2G" : "Dev5G"), i, order);
        jsonAddToArray(array, object);
    }
    jsonAddItem(container, arrayName, array);
    jsonDelete(info);
    return 1;
}

int addRadioObjects(cJSON *container, const char *wifiInfo, RadioMemberOrder order)
{
    return addDeviceObjects(container, wifiInfo, "RadioNum", "radios", fillRadio, order);
}

int addGuestNetworkObjects(cJSON *container, const char *guestInfo)
{
    return addDeviceObjects(container, guestInfo, "GuestNetworkNum", "network",
                            fillGuestNetwork, RADIO_STATUS_ORDER);
}
