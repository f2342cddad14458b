/*
 * JSON-RPC envelope helpers and the thin accessor layer over cJSON that every
 * module uses to read and build trees.  Member names are matched
 * case-insensitively (cJSON_GetObjectItem).
 */
#ifndef KC_JSON_PARSER_H
#define KC_JSON_PARSER_H

#include <cjson/cJSON.h>

/* Every error code the agent answers with (the message of each is fixed,
 * see jsonRpcErrorMessage). */
enum JsonRpcErrorCode {
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

/* Sentinel of the optional-integer accessors for an absent member. */
#define JSON_ABSENT_INT (-999)

/* {"jsonrpc":"2.0"}; running out of memory is fatal. */
cJSON *initJsonRpcObject(void);
/* Adds reply[key] = request[key] read as a string (null when it is none). */
void addJsonRpcId(const cJSON *request, cJSON *reply, const char *key);
/* The fixed message text of an error code ("Unknown error" for others). */
const char *jsonRpcErrorMessage(int code);
/* {"jsonrpc":"2.0","id":<request's>,"error":{"code","message","data"}}: a
 * new tree the caller owns (data NULL reads as ""). */
cJSON *jsonRpcErrorReply(const cJSON *request, int code, const char *data);

cJSON *jsonGetItem(const cJSON *object, const char *name);
const char *jsonGetString(const cJSON *object, const char *name);
int jsonGetInt(const cJSON *object, const char *name);
int jsonGetIntOrAbsent(const cJSON *object, const char *name);
double jsonGetNumber(const cJSON *object, const char *name);

void jsonAddString(cJSON *object, const char *name, const char *value);
void jsonAddInt(cJSON *object, const char *name, int value);
void jsonAddBool(cJSON *object, const char *name, int value);
void jsonAddNumber(cJSON *object, const char *name, double value);
void jsonAddItem(cJSON *object, const char *name, cJSON *item);
void jsonAddToArray(cJSON *array, cJSON *item);
cJSON *jsonCreateObject(void);
cJSON *jsonCreateArray(void);

cJSON *jsonParse(const char *text);
char *jsonPrint(const cJSON *tree);          /* unformatted, caller frees */
char *jsonPrintFormatted(const cJSON *tree); /* formatted, caller frees */
void jsonFreeText(char *text);
void jsonDelete(cJSON *tree);
int jsonArraySize(const cJSON *array);
cJSON *jsonArrayItem(const cJSON *array, int index);

#endif
