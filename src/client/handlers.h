/*
 * Request handlers and the dispatcher.  A handler reads "params" itself,
 * queues its own reply and never deletes or keeps the request.
 */
#ifndef KC_CLIENT_HANDLERS_H
#define KC_CLIENT_HANDLERS_H

#include <atomic>

struct cJSON;

typedef void (*CommandHandler)(const cJSON *request);

/* The device MAC address from the command line: every reply's deviceId. */
extern const char *g_deviceMac;

/* Checks the envelope, runs the handler, deletes the request. */
void genericCommandHandler(cJSON *request);

/* "params" when it holds "deviceId"; otherwise queues -32602 and gives NULL. */
const cJSON *requireDeviceParams(const cJSON *request);
/* {"jsonrpc","id","result":{"deviceId":MAC}}; result object via *result. */
cJSON *initDeviceResult(const cJSON *request, cJSON **result);

/* ---- identity and LAN settings (settings.cpp) ---- */

/*
 * The dxSetNetworkSettings reply that must leave the device before the new
 * settings are applied, or NULL.  The sending thread that writes it clears
 * it through pendingAckReplySent (the connection manager's reply-sent hook,
 * installed by main); the pointer refers to a tree the sending thread
 * deletes right after.
 */
extern std::atomic<cJSON *> g_pendingAckReply;
/* 1 (and the slot cleared) when sent is the pending reply: same "id" text. */
int pendingAckReplySent(const cJSON *sent);

void dxGetAboutHandler(const cJSON *request);

#endif
