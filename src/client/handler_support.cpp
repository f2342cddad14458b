/* Pieces every handler shares: the deviceId check and the result envelope. */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include "client/error_reply.h"
#include "json/envelope.h"
#include "json/accessors.h"

const char *g_deviceMac = "";

const cJSON *requireDeviceParams(const cJSON *request)
{
    const cJSON *params = jsonGetItem(request, "params");
    if (jsonGetItem(params, "deviceId") == NULL) {
        sendJsonRpcError(request, JSONRPC_INVALID_PARAMS);
        return NULL;
    }
    return params;
}

cJSON *initDeviceResult(const cJSON *request, cJSON **result)
{
    cJSON *reply = initJsonRpcObject();
    addJsonRpcId(request, reply, "id");
    *result = jsonCreateObject();
    jsonAddItem(reply, "result", *result);
    jsonAddString(*result, "deviceId", g_deviceMac);
    return reply;
}
