/* JSON-RPC error replies, queued for sending with the request's "id". */
#ifndef KC_CLIENT_ERROR_REPLY_H
#define KC_CLIENT_ERROR_REPLY_H

struct cJSON;

void sendJsonRpcError(const cJSON *request, int code);
void sendJsonRpcErrorData(const cJSON *request, int code, const char *data);

#endif
