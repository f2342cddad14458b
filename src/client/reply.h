/*
 * How a request is answered.  One way for every handler:
 *
 *   - a check that can refuse returns a Refusal value (the error code and
 *     its "data" text) and sends nothing itself;
 *   - the handler ends in exactly one reply: replyRefusal for a refusal,
 *     replyDeviceId for the success that carries only "deviceId", or
 *     replyResult for a result it has filled (begun with deviceResult).
 *
 * The exceptions are the agent's own and are commented where they happen:
 * "vekAddNetwork" refuses once for each missing member, "dxSetNetworkSettings"
 * follows its success with error 10001 when the success could not leave,
 * and "dxStreamSystemLogs" answers nothing on success (its results are the
 * streamed lines).
 *
 * Ownership: the request is only read (the dispatcher deletes it); a reply
 * tree goes to the reply queue, which deletes it once sent.  A refusal's
 * data is a constant text, never freed.
 */
#ifndef KC_CLIENT_REPLY_H
#define KC_CLIENT_REPLY_H

#include "json/envelope.h"

struct cJSON;

struct Refusal {
    JsonRpcErrorCode code; /* JSONRPC_NO_ERROR: nothing refused */
    const char *data;      /* the error's "data" text */
};

/* A refusal with code and data ("" when the error carries no text). */
Refusal refusal(JsonRpcErrorCode code, const char *data = "");
/* What a check returns when nothing is wrong. */
Refusal accepted(void);
/* 1 when why refuses the request. */
int isRefused(const Refusal &why);

/* "params" of a request that names the device ("deviceId" present, its
 * value never compared), or NULL. */
const cJSON *deviceParams(const cJSON *request);
/* The refusal of a request without "deviceId": -32602, no text. */
Refusal missingDeviceId(void);

/* {"jsonrpc","id","error":{"code","message","data"}} on the reply queue. */
void replyRefusal(const cJSON *request, const Refusal &why);
/* {"jsonrpc","id","result":{"deviceId":MAC}} on the reply queue. */
void replyDeviceId(const cJSON *request);
/* A reply with "result":{"deviceId":MAC}, for the handler to fill: the
 * result object through *result.  It goes out with replyResult. */
cJSON *deviceResult(const cJSON *request, cJSON **result);
/* Any reply tree the handler built, on the reply queue. */
void replyResult(cJSON *reply);

#endif
