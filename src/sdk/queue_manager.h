/*
 * Bounded queues of JSON trees between threads, and the readers-writers
 * lock (writer preference) that guards the one WebSocket connection.
 */
#ifndef KC_SDK_QUEUE_MANAGER_H
#define KC_SDK_QUEUE_MANAGER_H

#include <pthread.h>
#include <semaphore.h>

struct cJSON;

/* Ring length, capacity and the free-slot count all stay at 10. */
#define QUEUE_CAPACITY 10

enum { PRODUCE_NONBLOCKING = 0, PRODUCE_BLOCKING = 1 };

struct JsonQueue {
    cJSON **queue;
    sem_t freeSlots;
    sem_t filledSlots;
    pthread_mutex_t indexLock;
    int producerIndex;
    int consumerIndex;
};

void initQueue(JsonQueue *q, int capacity);
void deleteQueue(JsonQueue *q);
/* 1 when queued; 0 when a non-blocking produce found the queue full (the
 * tree is then answered with error 10002 and deleted). */
int produceObject(JsonQueue *q, cJSON *tree, int mode);
void consumeObject(JsonQueue *q, cJSON **tree);
int freeSlotCount(JsonQueue *q);

struct ConnectionLock {
    pthread_mutex_t readerEntry;
    pthread_mutex_t writerCount;
    pthread_mutex_t readerCount;
    sem_t readPermission;
    sem_t resource;
    int readers;
    int writers;
};

void initConnectionLock(ConnectionLock *l);
void deleteConnectionLock(ConnectionLock *l);
void connectionReadLock(ConnectionLock *l);
void connectionReadUnlock(ConnectionLock *l);
void connectionWriteLock(ConnectionLock *l);
void connectionWriteUnlock(ConnectionLock *l);

#endif
