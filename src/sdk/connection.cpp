/*
 * Opening and re-opening the connection.  The retry interval comes from
 * "korvatCloud.korvatCloud.conn_retry" (10 s by default); once ten minutes
 * of attempts have been spent at that interval the agent backs off to a
 * random 60 to 119 seconds between attempts, for as long as it takes.
 */
#define KC_MODULE "nimb_sdk.cpp"
#include "sdk/nimb_sdk.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "json/envelope.h"
#include "json/accessors.h"
#include "linux/mutex.h"
#include "linux/thread.h"
#include "sdk/queue_backup.h"
#include "sdk/sdk_private.h"
#include "websocket/connection.h"
#include "websocket/framing.h"
#include "util/random.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/text.h"

struct ConnectionContext {
    const char *url;
    const char *mac;
    void *ignored1;
    void *ignored2;
    ConnectionHook onPing;
    ConnectionHook onClose;
    ConnectionHook onReconnection;
};

static ConnectionContext s_context;
static ConnectionLock s_connectionLock;
static pthread_mutex_t s_activityLock;
static time_t s_lastActivity;
static int s_retryInterval = 10;
static void *(*s_maintenanceTimer)(void *) = NULL;
static void *(*s_statusUpdater)(void *) = NULL;
static int s_queuesReady = 0;

WbsConnection *g_wbsConnection = NULL;
JsonQueue g_recvQueue;
JsonQueue g_sendQueues[SEND_QUEUE_COUNT];

ConnectionLock *nimbConnectionLock(void)
{
    return &s_connectionLock;
}

int nimbQueuesReady(void)
{
    return s_queuesReady;
}

void refuseWithTooManyItems(cJSON *refused)
{
    writeJsonReply(jsonRpcErrorReply(refused, KC_ERROR_TOO_MANY_ITEMS, ""));
    jsonDelete(refused);
}

void setMaintenanceTimer(void *(*body)(void *))
{
    s_maintenanceTimer = body;
}

void setStatusUpdater(void *(*body)(void *))
{
    s_statusUpdater = body;
}

void initNimbQueues(void)
{
    /* Only the receiving thread and the restore at start-up produce
     * without blocking; what they cannot place is answered with 10002. */
    initQueue(&g_recvQueue, QUEUE_CAPACITY);
    setQueueRefusal(&g_recvQueue, refuseWithTooManyItems);
    for (int i = 0; i < SEND_QUEUE_COUNT; i++) {
        initQueue(&g_sendQueues[i], QUEUE_CAPACITY);
        setQueueRefusal(&g_sendQueues[i], refuseWithTooManyItems);
    }
    s_queuesReady = 1;
}

int currentRetryInterval(void)
{
    return s_retryInterval;
}

void updateLastActivity(void)
{
    lockMutex(&s_activityLock);
    s_lastActivity = time(NULL);
    unlockMutex(&s_activityLock);
}

static void onServerPing(void)
{
    updateLastActivity();
    if (s_context.onPing != NULL)
        s_context.onPing();
}

static void *reconnectionThread(void *)
{
    establishWbsConnection();
    return NULL;
}

void handleWbsClose(void)
{
    if (s_context.onClose != NULL)
        s_context.onClose();
    pthread_t thread;
    int ret = createThread(&thread, reconnectionThread, NULL, 1);
    KC_ASSERT_AT(522, 0 == ret, "0==ret");
}

unsigned int retryDelay(int interval, int *attempts)
{
    if (interval * *attempts >= 601)
        return 60 + nextRandom() % 60;
    (*attempts)++;
    return (unsigned int)interval;
}

static void readRetryInterval(void)
{
    char *out = run_shell_command(
        "uci get korvatCloud.korvatCloud.conn_retry | tr -d '\\n'", 100);
    int value = atoi(out);
    if (value > 0)
        s_retryInterval = value;
    free_text(out);
}

int establishWbsConnection(void)
{
    KC_DEBUG_AT(378, "<< pthread create and start >>\n");
    readRetryInterval();
    connectionWriteLock(&s_connectionLock);

    int reconnection = 1;
    if (g_wbsConnection == NULL) {
        g_wbsConnection = initWebsocketConnection(s_context.url, s_context.mac,
                                                  onServerPing, handleWbsClose);
        reconnection = 0;
        if (g_wbsConnection == NULL) {
            /* no attempt could ever succeed */
            connectionWriteUnlock(&s_connectionLock);
            return -1;
        }
    }
    int attempts = 0;
    while (!connectWebsocket(g_wbsConnection))
        sleep(retryDelay(s_retryInterval, &attempts));
    updateLastActivity();
    connectionWriteUnlock(&s_connectionLock);

    if (reconnection && s_context.onReconnection != NULL)
        s_context.onReconnection();
    KC_DEBUG_AT(431, "<< pthread exit >>\n");
    return 0;
}


void closeServerConnection(void)
{
    if (g_wbsConnection == NULL)
        return;
    /* With a reconnection under way (the write side held or awaited) the
     * connection is closed already; waiting for it could take minutes. */
    if (!connectionTryReadLock(&s_connectionLock))
        return;
    wbsClose(g_wbsConnection);
    connectionReadUnlock(&s_connectionLock);
}

int initConnection(const char *url, const char *mac, void *ignored1,
                   void *ignored2, ConnectionHook onPing,
                   ConnectionHook onClose, ConnectionHook onReconnection)
{
    struct sigaction ignore;
    memset(&ignore, 0, sizeof ignore);
    ignore.sa_handler = SIG_IGN;
    int ret = sigaction(SIGPIPE, &ignore, NULL);
    KC_ASSERT_AT(342, -1 != ret, "-1 != ret");

    initMutex(&s_activityLock);
    s_context.url = url;
    s_context.mac = mac;
    s_context.ignored1 = ignored1;
    s_context.ignored2 = ignored2;
    s_context.onPing = onPing;
    s_context.onClose = onClose;
    s_context.onReconnection = onReconnection;
    initConnectionLock(&s_connectionLock);

    if (establishWbsConnection() != 0)
        return -1;

    initNimbQueues();

    pthread_t thread;
    if (s_maintenanceTimer != NULL) {
        ret = createThread(&thread, s_maintenanceTimer, NULL, 1);
        KC_ASSERT_AT(355, 0 == ret, "0==ret");
    }
    initNimbThreads();
    restore_all_queues();
    if (s_statusUpdater != NULL) {
        ret = createThread(&thread, s_statusUpdater, NULL, 1);
        KC_ASSERT_AT(362, 0 == ret, "0==ret");
    }
    return 0;
}
