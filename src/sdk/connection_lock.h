/*
 * The readers-writers lock (writer preference) that guards the one
 * WebSocket connection: socket reads and writes take the read side, many
 * at once; opening or re-opening the connection takes the write side,
 * alone.  A waiting writer stops new readers, so a reconnection is not
 * starved by the busy worker threads.  Every failure of the underlying
 * mutexes and semaphores stops the process (linux/mutex.h, linux/sem.h).
 * The lock is a plain record of the caller's; nothing is allocated.
 */
#ifndef KC_SDK_CONNECTION_LOCK_H
#define KC_SDK_CONNECTION_LOCK_H

#include <pthread.h>
#include <semaphore.h>

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
/* The read side if it can be had at once: 1 taken, 0 when a writer holds
 * or waits for the lock (a reconnection is under way). */
int connectionTryReadLock(ConnectionLock *l);
void connectionReadUnlock(ConnectionLock *l);
void connectionWriteLock(ConnectionLock *l);
void connectionWriteUnlock(ConnectionLock *l);

#endif
