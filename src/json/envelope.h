/*
 * The JSON-RPC 2.0 envelope of every reply and message, and the error
 * codes with their fixed messages.
 *
 * Ownership: initJsonRpcObject and jsonRpcErrorReply return new trees the
 * caller owns (handing one to a queue passes it on); the request given to
 * them is only read.  Running out of memory for an envelope is fatal.
 */
#ifndef KC_JSON_ENVELOPE_H
#define KC_JSON_ENVELOPE_H

#include <cjson/cJSON.h>

/* Every error code the agent answers with (the message of each is fixed,
 * see jsonRpcErrorMessage). */
enum JsonRpcErrorCode : int {
    JSONRPC_NO_ERROR = 0,               /* nothing refused (never sent) */
    JSONRPC_PARSE_ERROR = -32700,       /* in the table; no path sends it */
    JSONRPC_INVALID_REQUEST = -32600,   /* an envelope member is missing */
    JSONRPC_METHOD_NOT_FOUND = -32601,  /* no handler for the method */
    JSONRPC_INVALID_PARAMS = -32602,    /* missing or invalid parameters */
    JSONRPC_INTERNAL_ERROR = -32603,    /* also: a version other than 2.0 */
    KC_ERROR_DEVICE_STATE = 10001,      /* could not apply or confirm */
    KC_ERROR_TOO_MANY_ITEMS = 10002,    /* the receive queue is full */
    KC_ERROR_NOT_UPNP_ROUTER = 10100,   /* no Internet gateway found */
    KC_ERROR_ROUTER_REFUSED = 10101,    /* the gateway refused the mapping */
    KC_ERROR_PROTOCOL_UNSUPPORTED = 10102,
};

/* {"jsonrpc":"2.0"}. */
cJSON *initJsonRpcObject(void);
/* Adds reply[key] = request[key] read as a string (null when it is none). */
void addJsonRpcId(const cJSON *request, cJSON *reply, const char *key);
/* The fixed message text of an error code ("Unknown error" for others). */
const char *jsonRpcErrorMessage(int code);
/* {"jsonrpc":"2.0","id":<request's>,"error":{"code","message","data"}}
 * (data NULL reads as ""). */
cJSON *jsonRpcErrorReply(const cJSON *request, JsonRpcErrorCode code, const char *data);

#endif
