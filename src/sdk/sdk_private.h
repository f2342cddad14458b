/*
 * What the files of the connection manager share with each other (and
 * with the tests that look inside it), and nothing else does: the queues,
 * the connection record and lock, the threads' bodies.
 *
 * Ownership: as in sdk/nimb_sdk.h; the queues own the trees queued in
 * them; the connection record lives as long as the process.
 */
#ifndef KC_SDK_SDK_PRIVATE_H
#define KC_SDK_SDK_PRIVATE_H

#include "sdk/connection_lock.h"
#include "sdk/nimb_sdk.h"
#include "sdk/queue_manager.h"

struct WbsConnection;

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

void initNimbThreads(void);
void *queueWriter(void *queue);
void *queueReader(void *queue);

/* The lock around the one connection: sends and receives take the read
 * side, (re)connection the write side. */
ConnectionLock *nimbConnectionLock(void);

/* Refusal hook of the receive queue: answers the request with error 10002
 * ("Too many items in a list") on the reply queue and deletes it. */
void refuseWithTooManyItems(cJSON *refused);

#endif
