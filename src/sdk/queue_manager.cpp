/* Produce/consume over a ring of tree pointers guarded by two semaphores. */
#define KC_MODULE "queue_manager.cpp"
#include "sdk/queue_manager.h"

#include <cstdlib>

#include "json/accessors.h"
#include "linux/mutex.h"
#include "linux/sem.h"
#include "util/debug.h"

void initQueue(JsonQueue *q, int capacity)
{
    q->queue = static_cast<cJSON **>(calloc((size_t)capacity, sizeof(cJSON *)));
    KC_ASSERT_AT(11, NULL != q->queue, "((void *)0) != pQueue->queue");
    q->producerIndex = 0;
    q->consumerIndex = 0;
    q->onRefused = NULL;
    q->handedOver = 0;
    initSemaphore(&q->freeSlots, QUEUE_CAPACITY);
    initSemaphore(&q->filledSlots, 0);
    initMutex(&q->indexLock);
}

void deleteQueue(JsonQueue *q)
{
    free(q->queue);
    q->queue = NULL;
    deleteSemaphore(&q->freeSlots);
    deleteSemaphore(&q->filledSlots);
    deleteMutex(&q->indexLock);
}

void setQueueRefusal(JsonQueue *q, QueueRefusal onRefused)
{
    q->onRefused = onRefused;
}

int produceObject(JsonQueue *q, cJSON *tree, int mode)
{
    if (mode == PRODUCE_BLOCKING) {
        waitSemaphore(&q->freeSlots);
    } else if (!trywaitSemaphore(&q->freeSlots)) {
        if (q->onRefused != NULL)
            q->onRefused(tree);
        else
            jsonDelete(tree);
        return 0;
    }
    /* The pointer is stored under the index lock so that a backup snapshot,
     * which holds the lock, never sees a slot counted but not yet filled. */
    lockMutex(&q->indexLock);
    int slot = q->producerIndex;
    q->producerIndex = (slot + 1) % QUEUE_CAPACITY;
    q->queue[slot] = tree;
    unlockMutex(&q->indexLock);
    postSemaphore(&q->filledSlots);
    return 1;
}

void consumeObject(JsonQueue *q, cJSON **tree)
{
    for (;;) {
        waitSemaphore(&q->filledSlots);
        lockMutex(&q->indexLock);
        int slot = q->consumerIndex;
        q->consumerIndex = (slot + 1) % QUEUE_CAPACITY;
        int handedOver = q->handedOver > 0;
        if (handedOver)
            q->handedOver--;
        unlockMutex(&q->indexLock);
        *tree = q->queue[slot];
        postSemaphore(&q->freeSlots);
        if (!handedOver)
            return;
        /* saved for the next start, which takes it then */
        jsonDelete(*tree);
        *tree = NULL;
    }
}

int freeSlotCount(JsonQueue *q)
{
    return getSemaphoreValue(&q->freeSlots);
}

static void snapshot(JsonQueue *q, QueueSnapshotVisit visit, void *context, int handOver)
{
    const cJSON *items[QUEUE_CAPACITY];
    lockMutex(&q->indexLock);
    int count = q->producerIndex - q->consumerIndex;
    int n = 0;
    for (int i = q->consumerIndex; i < q->producerIndex; i++)
        items[n++] = q->queue[i];
    int saved = visit(context, count, n > 0 ? items : NULL);
    /* only what the visit saved is dropped */
    if (handOver && saved && count > 0)
        q->handedOver = n;
    unlockMutex(&q->indexLock);
}

void snapshotQueue(JsonQueue *q, QueueSnapshotVisit visit, void *context)
{
    snapshot(q, visit, context, 0);
}

void snapshotQueueHandOver(JsonQueue *q, QueueSnapshotVisit visit, void *context)
{
    snapshot(q, visit, context, 1);
}
