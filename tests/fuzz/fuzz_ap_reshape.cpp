/*
 * Fuzzes the re-shaping of the utility script's "WifiInfo" and
 * "GuestNetworkInfo" answers into status replies: addRadioObjects in
 * RADIO_STATUS_ORDER ("vekGetRadioStatus") and in STATUS_UPDATE_ORDER
 * ("vekGetStatus" and the periodic status update), and
 * addGuestNetworkObjects ("vekGetGuestNetworkStatus").
 *
 * Input: the answer, up to a NUL byte; each of the three is run on it.
 *
 * Oracle: each result is compared with one built here from the parsed
 * answer, member by member:
 *   - an answer that is not JSON: 0, nothing added;
 *   - a count ("RadioNum", "GuestNetworkNum": the member's integer value,
 *     1 for true, 0 when missing or of another kind) of 3 or more: -1,
 *     nothing added;
 *   - otherwise 1 and one array ("radios" or "network") with one object
 *     per radio or guest network, the first from "Dev2G", the others from
 *     "Dev5G", each with exactly these members in this order:
 *       radio status:  "interface" ("2.4GHz" first, then "5GHz"),
 *                      "enabled" ("Status" is "Enabled"), "rx", "tx"
 *                      ("RxByte", "TxByte" read as decimal numbers, a
 *                      missing one as 0), "networks" ("NetworkNum"),
 *                      "clients" ("ClientNum")
 *       status update: "interface", "rx", "tx", "networks", "clients",
 *                      "enabled"
 *       guest network: "networkIndex" ("NetworkIndex"), "enabled", "mac",
 *                      "ssid", "interface" ("Mac", "SSID", "Interface",
 *                      "" when missing), "clients", "rx", "tx"
 *     (members found as the request accessors find them: the first of
 *     that name without regard to case; numbers as integers, saturated,
 *     fractions dropped).
 */
#include <strings.h>

#include <cjson/cJSON.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/script_answers.h"

namespace {

const cJSON *member(const cJSON *object, const char *name)
{
    if (object == nullptr)
        return nullptr;
    for (const cJSON *child = object->child; child != nullptr; child = child->next) {
        if (child->string != nullptr && strcasecmp(child->string, name) == 0)
            return child;
    }
    return nullptr;
}

/* A member's integer value as the parser keeps it: numbers saturated to
 * int, true 1, anything else 0. */
int integerOf(const cJSON *object, const char *name)
{
    const cJSON *item = member(object, name);
    if (cJSON_IsTrue(item))
        return 1;
    if (!cJSON_IsNumber(item))
        return 0;
    double d = item->valuedouble;
    if (d >= (double)INT_MAX)
        return INT_MAX;
    if (d <= (double)INT_MIN)
        return INT_MIN;
    return (int)d;
}

const char *textOf(const cJSON *object, const char *name)
{
    const cJSON *item = member(object, name);
    return cJSON_IsString(item) ? item->valuestring : "";
}

double decimalOf(const cJSON *object, const char *name)
{
    return strtod(textOf(object, name), nullptr);
}

bool enabled(const cJSON *dev)
{
    return strcmp(textOf(dev, "Status"), "Enabled") == 0;
}

enum Shape { RADIO_STATUS, STATUS_UPDATE, GUEST_NETWORK };

/* The expected container, or NULL for "nothing added"; *ret the result. */
cJSON *expected(const cJSON *info, Shape shape, int *ret)
{
    *ret = 0;
    if (info == nullptr)
        return nullptr;
    int count = integerOf(info, shape == GUEST_NETWORK ? "GuestNetworkNum" : "RadioNum");
    if (count >= 3) {
        *ret = -1;
        return nullptr;
    }
    *ret = 1;
    cJSON *container = cJSON_CreateObject();
    cJSON *array = cJSON_AddArrayToObject(container, shape == GUEST_NETWORK ? "network" : "radios");
    for (int i = 0; i < count; i++) {
        const cJSON *dev = member(info, i == 0 ? "Dev2G" : "Dev5G");
        cJSON *o = cJSON_CreateObject();
        const char *interface = i == 0 ? "2.4GHz" : "5GHz";
        switch (shape) {
        case RADIO_STATUS:
            cJSON_AddStringToObject(o, "interface", interface);
            cJSON_AddBoolToObject(o, "enabled", enabled(dev));
            cJSON_AddNumberToObject(o, "rx", decimalOf(dev, "RxByte"));
            cJSON_AddNumberToObject(o, "tx", decimalOf(dev, "TxByte"));
            cJSON_AddNumberToObject(o, "networks", integerOf(dev, "NetworkNum"));
            cJSON_AddNumberToObject(o, "clients", integerOf(dev, "ClientNum"));
            break;
        case STATUS_UPDATE:
            cJSON_AddStringToObject(o, "interface", interface);
            cJSON_AddNumberToObject(o, "rx", decimalOf(dev, "RxByte"));
            cJSON_AddNumberToObject(o, "tx", decimalOf(dev, "TxByte"));
            cJSON_AddNumberToObject(o, "networks", integerOf(dev, "NetworkNum"));
            cJSON_AddNumberToObject(o, "clients", integerOf(dev, "ClientNum"));
            cJSON_AddBoolToObject(o, "enabled", enabled(dev));
            break;
        case GUEST_NETWORK:
            cJSON_AddNumberToObject(o, "networkIndex", integerOf(dev, "NetworkIndex"));
            cJSON_AddBoolToObject(o, "enabled", enabled(dev));
            cJSON_AddStringToObject(o, "mac", textOf(dev, "Mac"));
            cJSON_AddStringToObject(o, "ssid", textOf(dev, "SSID"));
            cJSON_AddStringToObject(o, "interface", textOf(dev, "Interface"));
            cJSON_AddNumberToObject(o, "clients", integerOf(dev, "ClientNum"));
            cJSON_AddNumberToObject(o, "rx", decimalOf(dev, "RxByte"));
            cJSON_AddNumberToObject(o, "tx", decimalOf(dev, "TxByte"));
            break;
        }
        cJSON_AddItemToArray(array, o);
    }
    return container;
}

std::string printed(const cJSON *tree)
{
    char *text = cJSON_PrintUnformatted(tree);
    if (text == nullptr)
        abort();
    std::string s = text;
    cJSON_free(text);
    return s;
}

void check(const char *answer, const cJSON *info, Shape shape)
{
    cJSON *container = cJSON_CreateObject();
    int ret;
    switch (shape) {
    case RADIO_STATUS: ret = addRadioObjects(container, answer, RADIO_STATUS_ORDER); break;
    case STATUS_UPDATE: ret = addRadioObjects(container, answer, STATUS_UPDATE_ORDER); break;
    default: ret = addGuestNetworkObjects(container, answer); break;
    }
    int want = 0;
    cJSON *model = expected(info, shape, &want);
    if (ret != want)
        abort();
    if (model == nullptr) {
        if (container->child != nullptr)
            abort(); // nothing may be added
    } else if (printed(container) != printed(model)) {
        abort();
    }
    cJSON_Delete(model);
    cJSON_Delete(container);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *bytes = reinterpret_cast<const char *>(data);
    const char *nul = static_cast<const char *>(memchr(bytes, '\0', size));
    std::string answer(bytes, nul != nullptr ? (size_t)(nul - bytes) : size);
    cJSON *info = cJSON_Parse(answer.c_str());
    check(answer.c_str(), info, RADIO_STATUS);
    check(answer.c_str(), info, STATUS_UPDATE);
    check(answer.c_str(), info, GUEST_NETWORK);
    check(nullptr, nullptr, RADIO_STATUS);
    cJSON_Delete(info);
    return 0;
}
