/* Refusals as values; the replies every handler ends in. */
#define KC_MODULE "nimb_client.cpp"
#include "client/reply.h"

#include "client/handlers.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"

const char *g_deviceMac = "";

Refusal refusal(JsonRpcErrorCode code, const char *data)
{
    Refusal why = {code, data != NULL ? data : ""};
    return why;
}

Refusal accepted(void)
{
    return refusal(JSONRPC_NO_ERROR);
}

int isRefused(const Refusal &why)
{
    return why.code != JSONRPC_NO_ERROR;
}

const cJSON *deviceParams(const cJSON *request)
{
    const cJSON *params = jsonGetItem(request, "params");
    return jsonGetItem(params, "deviceId") != NULL ? params : NULL;
}

Refusal missingDeviceId(void)
{
    return refusal(JSONRPC_INVALID_PARAMS);
}

void replyRefusal(const cJSON *request, const Refusal &why)
{
    writeJsonReply(jsonRpcErrorReply(request, why.code, why.data));
}

cJSON *deviceResult(const cJSON *request, cJSON **result)
{
    cJSON *reply = initJsonRpcObject();
    addJsonRpcId(request, reply, "id");
    *result = jsonCreateObject();
    jsonAddItem(reply, "result", *result);
    jsonAddString(*result, "deviceId", g_deviceMac);
    return reply;
}

void replyResult(cJSON *reply)
{
    writeJsonReply(reply);
}

void replyDeviceId(const cJSON *request)
{
    cJSON *result = NULL;
    replyResult(deviceResult(request, &result));
}
