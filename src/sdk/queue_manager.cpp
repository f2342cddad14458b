/* Produce/consume over a ring of tree pointers guarded by two semaphores. */
#define KC_MODULE "queue_manager.cpp"
#include "sdk/queue_manager.h"

#include <cstdlib>

#include "json/json_parser.h"
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
    waitSemaphore(&q->filledSlots);
    lockMutex(&q->indexLock);
    int slot = q->consumerIndex;
    q->consumerIndex = (slot + 1) % QUEUE_CAPACITY;
    unlockMutex(&q->indexLock);
    *tree = q->queue[slot];
    postSemaphore(&q->freeSlots);
}

int freeSlotCount(JsonQueue *q)
{
    return getSemaphoreValue(&q->freeSlots);
}

void snapshotQueue(JsonQueue *q, QueueSnapshotVisit visit, void *context)
{
    const cJSON *items[QUEUE_CAPACITY];
    lockMutex(&q->indexLock);
    int count = q->producerIndex - q->consumerIndex;
    int n = 0;
    for (int i = q->consumerIndex; i < q->producerIndex; i++)
        items[n++] = q->queue[i];
    visit(context, count, n > 0 ? items : NULL);
    unlockMutex(&q->indexLock);
}
