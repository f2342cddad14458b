/*
 * Bounded queues of JSON trees between threads.
 *
 * Ownership: a tree handed to produceObject belongs to the queue (or, when
 * refused, to the queue's refusal hook); consumeObject hands it to the
 * consumer, who deletes it.
 */
#ifndef KC_SDK_QUEUE_MANAGER_H
#define KC_SDK_QUEUE_MANAGER_H

#include <pthread.h>
#include <semaphore.h>

struct cJSON;

/* Ring length, capacity and the free-slot count all stay at 10. */
#define QUEUE_CAPACITY 10

enum { PRODUCE_NONBLOCKING = 0, PRODUCE_BLOCKING = 1 };

/* What a queue does with a tree a non-blocking produce could not place; it
 * takes ownership of the tree.  Without one the tree is deleted. */
typedef void (*QueueRefusal)(cJSON *refused);

struct JsonQueue {
    cJSON **queue;
    sem_t freeSlots;
    sem_t filledSlots;
    pthread_mutex_t indexLock;
    int producerIndex;
    int consumerIndex;
    QueueRefusal onRefused;
    /* Trees at the head of the ring that a hand-over snapshot saved for
     * the next start: consumers drop them instead of taking them. */
    int handedOver;
};

/* Ring of capacity slots, empty, without a refusal hook. */
void initQueue(JsonQueue *q, int capacity);
void deleteQueue(JsonQueue *q);
void setQueueRefusal(JsonQueue *q, QueueRefusal onRefused);
/* 1 when queued; 0 when a non-blocking produce found the queue full (the
 * tree then goes to the refusal hook). */
int produceObject(JsonQueue *q, cJSON *tree, int mode);
/* Waits for the oldest tree and hands it over; trees handed over to the
 * next start are deleted on the way (snapshotQueueHandOver). */
void consumeObject(JsonQueue *q, cJSON **tree);
int freeSlotCount(JsonQueue *q);

/*
 * A snapshot of what is queued, taken under the queue's index lock: count
 * is producer index minus consumer index (negative once the ring has
 * wrapped, 0 when empty or full), and items are the trees from the consumer
 * index up to the producer index, oldest first (none unless count > 0).
 * visit runs with the lock held, so no consumer can take and delete those
 * trees meanwhile; it must not keep the pointers.  It returns 1 when it
 * saved the items, else 0.
 */
typedef int (*QueueSnapshotVisit)(void *context, int count,
                                  const cJSON *const *items);
void snapshotQueue(JsonQueue *q, QueueSnapshotVisit visit, void *context);

/*
 * The same snapshot, taken to hand the queued trees over to the next start
 * (the device is about to reboot): when the visit saved them, the trees
 * visited stay queued but are dropped by consumeObject when they come up, so that none is both taken
 * in this run and saved for the next.  Trees queued afterwards are taken
 * as usual.
 */
void snapshotQueueHandOver(JsonQueue *q, QueueSnapshotVisit visit, void *context);

#endif
