/*
 * The receiving thread (socket -> receive queue), the three sending threads
 * (send queues -> socket) and the queue doors of the main thread and the
 * handlers.  Both directions print a frame dump on every message.
 */
#define KC_MODULE "nimb_sdk.cpp"
#include "sdk/nimb_sdk.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "json/accessors.h"
#include "linux/thread.h"
#include "sdk/sdk_private.h"
#include "websocket/framing.h"
#include "util/debug.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/colour.h"
#include "util/redact.h"

static ReplySentHook s_replySentHook = NULL;

void setReplySentHook(ReplySentHook hook)
{
    s_replySentHook = hook;
}

static const char kDashes[] =
    "-----------------------------------------------------------------------------";
static const char kReceiveColour[] = "\033[1;33m";
static const char kSendColour[] = "\033[1;36m";

/* A failed send or receive on a closed connection is retried after this
 * short pause, so that the worker threads do not burn the CPU while the
 * reconnection thread starts. */
static const useconds_t kRetryPauseUs = 20 * 1000;

/* Prints one frame dump; text is coloured at its "method" value and its
 * secrets (Wi-Fi pass-phrases, RADIUS secrets) read "***". */
static void printFrameDump(const char *function, const char *heading,
                           const char *text, const char *colour)
{
    char *shown = redact_secrets(text);
    size_t capacity = strlen(shown) + 32;
    char *copy = static_cast<char *>(realloc(shown, capacity));
    colour_json_value(copy, (unsigned int)capacity, "method", colour);
    char *now = get_iso_timestamp(1);
    printf("%s\n[%s][Thread][Func %s]\n%s%s\n%s\n", kDashes, now, function,
           heading, copy, kDashes);
    free_text(now);
    free(copy);
}

void *queueWriter(void *arg)
{
    JsonQueue *queue = static_cast<JsonQueue *>(arg);
    /* Static: one receiving thread; one spare byte for the terminator. */
    static char buffer[RECEIVE_BUFFER_SIZE + 1];
    KC_DEBUG_AT(539, "<< pthread create and start >>\n");
    for (;;) {
        connectionReadLock(nimbConnectionLock());
        int length = wbsReadMessage(g_wbsConnection, buffer, RECEIVE_BUFFER_SIZE);
        connectionReadUnlock(nimbConnectionLock());
        if (length == -1) {
            usleep(kRetryPauseUs);
            continue;
        }
        updateLastActivity();
        buffer[length] = '\0';

        char heading[64];
        snprintf(heading, sizeof heading, "Recieved text frame: %d\n", length);
        printFrameDump("queueWriter", heading, buffer, kReceiveColour);

        cJSON *root = jsonParse(buffer);
        KC_ASSERT_AT(568, NULL != root, "((void *)0) != root");
        KC_DEBUG_AT(571, "produceObject: start\n");
        produceObject(queue, root, PRODUCE_NONBLOCKING);
        KC_DEBUG_AT(573, "produceObject: end\n");
    }
    return NULL;
}

void readJsonCommand(cJSON **request)
{
    KC_DEBUG_AT(586, "consumeObject: start\n");
    consumeObject(&g_recvQueue, request);
    KC_DEBUG_AT(588, "consumeObject: end\n");
}

/* Tells whoever waits for this reply that it has left the device. */
static void acknowledgeSent(const cJSON *tree)
{
    if (s_replySentHook != NULL && s_replySentHook(tree))
        KC_DEBUG_AT(660, "queueReader: dxSetNetworkSettings method reply ack message is sent.\n");
}

void *queueReader(void *arg)
{
    JsonQueue *queue = static_cast<JsonQueue *>(arg);
    KC_DEBUG_AT(605, "<< pthread create and start >>\n");
    for (;;) {
        cJSON *tree = NULL;
        KC_DEBUG_AT(609, "consumeObject: start\n");
        consumeObject(queue, &tree);
        KC_DEBUG_AT(611, "consumeObject: end\n");

        char *wire = jsonPrint(tree);
        KC_ASSERT_AT(621, NULL != wire, "((void *)0) != jsonReplyString");
        char *formatted = jsonPrintFormatted(tree);
        printFrameDump("queueReader", "Sending text frame:\n",
                       formatted != NULL ? formatted : wire, kSendColour);

        for (;;) {
            connectionReadLock(nimbConnectionLock());
            int sent = wbsSendFrame(g_wbsConnection, WBS_OPCODE_TEXT, wire,
                                    (unsigned int)strlen(wire));
            connectionReadUnlock(nimbConnectionLock());
            if (sent != -1)
                break;
            /* The failed send masked the text in place: print it afresh so
             * that the server receives the true text after reconnection. */
            jsonFreeText(wire);
            wire = jsonPrint(tree);
            KC_ASSERT_AT(621, NULL != wire, "((void *)0) != jsonReplyString");
            usleep(kRetryPauseUs);
        }
        acknowledgeSent(tree);
        jsonFreeText(wire);
        jsonFreeText(formatted);
        jsonDelete(tree);
    }
    return NULL;
}

void writeJsonReply(cJSON *reply)
{
    KC_DEBUG_AT(680, "produceObject: start\n");
    produceObject(&g_sendQueues[SEND_QUEUE_REPLY], reply, PRODUCE_BLOCKING);
    KC_DEBUG_AT(682, "produceObject: end\n");
}

void writeJsonStatus(cJSON *message)
{
    produceObject(&g_sendQueues[SEND_QUEUE_STATUS], message, PRODUCE_BLOCKING);
}

void writeJsonEvent(cJSON *message)
{
    produceObject(&g_sendQueues[SEND_QUEUE_EVENT], message, PRODUCE_BLOCKING);
}

int sendQueueFreeSlots(int which)
{
    return freeSlotCount(&g_sendQueues[which]);
}

void initNimbThreads(void)
{
    pthread_t thread;
    int ret = createThread(&thread, queueWriter, &g_recvQueue, 0);
    KC_ASSERT_AT(457, 0 == ret, "0==ret");
    for (int i = 0; i < SEND_QUEUE_COUNT; i++) {
        ret = createThread(&thread, queueReader, &g_sendQueues[i], 0);
        KC_ASSERT_AT(462, 0 == ret, "0==ret");
    }
}
