/*
 * The connection manager's face to the rest of the agent: the one
 * WebSocket connection to the device server (opened, re-opened with its
 * back-off, closed on request), the threads that move trees between the
 * socket and the queues, and the queues' doors.
 *
 * Ownership: a tree handed to writeJsonReply, writeJsonStatus or
 * writeJsonEvent belongs to the queue from then on (its sending thread
 * prints, sends and deletes it); those calls block while the queue is
 * full.  readJsonCommand hands the next request to the caller, who deletes
 * it.  The hooks are called on the connection's threads and must not
 * block on the connection.
 */
#ifndef KC_SDK_NIMB_SDK_H
#define KC_SDK_NIMB_SDK_H

struct cJSON;

typedef void (*ConnectionHook)(void);

/* The send queues, each with a sending thread of its own. */
enum { SEND_QUEUE_REPLY = 0, SEND_QUEUE_STATUS = 1, SEND_QUEUE_EVENT = 2 };
#define SEND_QUEUE_COUNT 3

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
/* The periodic status updates' thread body, started by initConnection
 * last, once the saved queues have been restored (set before
 * initConnection). */
void setStatusUpdater(void *(*body)(void *));

/* Opens the connection (blocks, retrying, until it is up), creates the
 * queues and starts the threads.  0; -1 when the URL is none of the forms
 * the agent knows, so that no attempt could ever succeed (nothing was
 * started then; the caller reports it). */
int initConnection(const char *url, const char *mac, void *ignored1,
                   void *ignored2, ConnectionHook onPing,
                   ConnectionHook onClose, ConnectionHook onReconnection);

/* Closes the connection to the device server (the reconnection follows as
 * after any close); nothing while a reconnection is under way.  Never
 * waits behind a send that cannot progress. */
void closeServerConnection(void);

/* Free slots of a send queue (SEND_QUEUE_REPLY, _STATUS, _EVENT): the
 * checks that discard device-side data rather than block on a full queue
 * read it. */
int sendQueueFreeSlots(int which);

void readJsonCommand(cJSON **request);
void writeJsonReply(cJSON *reply);
void writeJsonStatus(cJSON *message);
void writeJsonEvent(cJSON *message);

#endif
