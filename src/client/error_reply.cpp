/* Builds {"jsonrpc","id","error":{"code","message","data"}} and queues it. */
#define KC_MODULE "nimb_client.cpp"
#include "client/error_reply.h"

#include "json/envelope.h"
#include "sdk/nimb_sdk.h"

void sendJsonRpcError(const cJSON *request, int code)
{
    sendJsonRpcErrorData(request, code, "");
}

void sendJsonRpcErrorData(const cJSON *request, int code, const char *data)
{
    writeJsonReply(jsonRpcErrorReply(request, code, data));
}
