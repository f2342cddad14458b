/*
 * Connection manager: the one WebSocket connection to the device server,
 * its reconnection with back-off, and the worker threads that move trees
 * between the socket and the queues.
 */
#ifndef KC_SDK_NIMB_SDK_H
#define KC_SDK_NIMB_SDK_H

#include <atomic>

#include "sdk/queue_manager.h"
#include "websocket/websocket_client.h"

struct cJSON;

typedef void (*ConnectionHook)(void);

enum { SEND_QUEUE_REPLY = 0, SEND_QUEUE_STATUS = 1, SEND_QUEUE_EVENT = 2 };
#define SEND_QUEUE_COUNT 3

/* Size of the receive buffer; one spare byte holds the terminator. */
#define RECEIVE_BUFFER_SIZE 16384

extern JsonQueue g_recvQueue;
extern JsonQueue g_sendQueues[SEND_QUEUE_COUNT];
/* The connection record, made by the first establishWbsConnection. */
extern WbsConnection *g_wbsConnection;
/* Reply of dxSetNetworkSettings waiting to leave the device, or NULL. */
extern std::atomic<cJSON *> g_pendingAckReply;

int nimbQueuesReady(void);

void initConnection(const char *url, const char *mac, void *ignored1,
                    void *ignored2, ConnectionHook onPing,
                    ConnectionHook onClose, ConnectionHook onReconnection);
int establishWbsConnection(void);
void handleWbsClose(void);
void updateLastActivity(void);
int currentRetryInterval(void);

void initNimbThreads(void);
void *queueWriter(void *queue);
void *queueReader(void *queue);
void readJsonCommand(cJSON **request);
void writeJsonReply(cJSON *reply);
void writeJsonStatus(cJSON *message);
void writeJsonEvent(cJSON *message);

#endif
