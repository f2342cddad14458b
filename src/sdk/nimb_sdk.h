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
int nimbQueuesReady(void);
/* Creates the four queues (capacity 10); the receive queue answers what it
 * refuses with error 10002.  Called by initConnection. */
void initNimbQueues(void);

/*
 * Run by the sending threads after each tree has been written to the
 * connection, before the tree is deleted; non-zero means the tree was a
 * reply someone was waiting for (the debug line of the acknowledgement is
 * then printed).  Set once, before the threads start.
 */
typedef int (*ReplySentHook)(const cJSON *sent);
void setReplySentHook(ReplySentHook hook);

/* The maintenance timer's thread body, started by initConnection right
 * after the queues (set before initConnection). */
void setMaintenanceTimer(void *(*body)(void *));

/* Opens the connection (blocks, retrying, until it is up), creates the
 * queues and starts the threads.  0; -1 when the URL is none of the forms
 * the agent knows, so that no attempt could ever succeed (nothing was
 * started then; the caller reports it). */
int initConnection(const char *url, const char *mac, void *ignored1,
                   void *ignored2, ConnectionHook onPing,
                   ConnectionHook onClose, ConnectionHook onReconnection);
/* 0 once connected; -1 when there is no connection record to connect
 * (the URL could not be parsed). */
int establishWbsConnection(void);
void handleWbsClose(void);
void updateLastActivity(void);
int currentRetryInterval(void);
/* Seconds to wait after a failed connection attempt.  While interval times
 * the attempts counted so far is below 601 it is the interval, and the
 * attempt counts; after that (about ten minutes) it is 60 to 119 seconds
 * from the process-wide generator, and the attempt does not count. */
unsigned int retryDelay(int interval, int *attempts);

/* Closes the connection to the device server (the reconnection follows as
 * after any close); nothing while a reconnection is under way.  Never
 * waits behind a send that cannot progress. */
void closeServerConnection(void);

/* Free slots of a send queue (SEND_QUEUE_REPLY, _STATUS, _EVENT): the
 * checks that discard device-side data rather than block on a full queue
 * read it. */
int sendQueueFreeSlots(int which);

void initNimbThreads(void);
void *queueWriter(void *queue);
void *queueReader(void *queue);
void readJsonCommand(cJSON **request);
void writeJsonReply(cJSON *reply);
void writeJsonStatus(cJSON *message);
void writeJsonEvent(cJSON *message);

#endif
