/* JSON-RPC 2.0 reply envelope and the fixed table of error messages. */
#define KC_MODULE "json_parser.cpp"
#include "json/envelope.h"
#include "json/accessors.h"

#include "util/debug.h"

cJSON *initJsonRpcObject(void)
{
    cJSON *root = cJSON_CreateObject();
    KC_ASSERT_AT(302, NULL != root, "((void *)0) != root");
    cJSON_AddItemToObject(root, "jsonrpc", cJSON_CreateString("2.0"));
    return root;
}

void addJsonRpcId(const cJSON *request, cJSON *reply, const char *key)
{
    const char *value = jsonGetString(request, key);
    if (value == NULL) {
        /* No string to copy: the reply still carries the member, as null. */
        cJSON_AddItemToObject(reply, key, cJSON_CreateNull());
        return;
    }
    cJSON_AddItemToObject(reply, key, cJSON_CreateString(value));
}

const char *jsonRpcErrorMessage(int code)
{
    switch (code) {
    case JSONRPC_PARSE_ERROR: return "Invalid JSON was received";
    case JSONRPC_INVALID_REQUEST: return "The JSON sent is not a valid Request object";
    case JSONRPC_METHOD_NOT_FOUND: return "The method is not available";
    case JSONRPC_INVALID_PARAMS: return "Invalid method parameter";
    case JSONRPC_INTERNAL_ERROR: return "Internal JSON-RPC error";
    case KC_ERROR_DEVICE_STATE:
        return "Cannot execute request because the device is not in an appropriate state";
    case KC_ERROR_TOO_MANY_ITEMS: return "Too many items in a list";
    case KC_ERROR_NOT_UPNP_ROUTER: return "The router is not a UPnP router";
    case KC_ERROR_ROUTER_REFUSED: return "The router could not perform the request";
    case KC_ERROR_PROTOCOL_UNSUPPORTED: return "The device does not support the protocol requested";
    default: return "Unknown error";
    }
}

cJSON *jsonRpcErrorReply(const cJSON *request, JsonRpcErrorCode code, const char *data)
{
    cJSON *reply = initJsonRpcObject();
    addJsonRpcId(request, reply, "id");
    cJSON *error = jsonCreateObject();
    jsonAddItem(reply, "error", error);
    jsonAddInt(error, "code", code);
    jsonAddString(error, "message", jsonRpcErrorMessage(code));
    jsonAddString(error, "data", data != NULL ? data : "");
    return reply;
}
