/* JSON-RPC 2.0 reply envelope and the fixed table of error messages. */
#define KC_MODULE "json_parser.cpp"
#include "json/json_parser.h"

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
    case -32700: return "Invalid JSON was received";
    case -32600: return "The JSON sent is not a valid Request object";
    case -32601: return "The method is not available";
    case -32602: return "Invalid method parameter";
    case -32603: return "Internal JSON-RPC error";
    case 10001: return "Cannot execute request because the device is not in an appropriate state";
    case 10002: return "Too many items in a list";
    case 10100: return "The router is not a UPnP router";
    case 10101: return "The router could not perform the request";
    case 10102: return "The device does not support the protocol requested";
    default: return "Unknown error";
    }
}
