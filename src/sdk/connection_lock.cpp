/*
 * Readers-writers lock with writer preference: socket reads and writes take
 * the read side, (re)connection the write side.  A waiting writer stops new
 * readers, so a reconnection is not starved by the busy worker threads.
 */
#define KC_MODULE "queue_manager.cpp"
#include "sdk/connection_lock.h"

#include "linux/mutex.h"
#include "linux/sem.h"

void initConnectionLock(ConnectionLock *l)
{
    initMutex(&l->readerEntry);
    initMutex(&l->writerCount);
    initMutex(&l->readerCount);
    initSemaphore(&l->readPermission, 1);
    initSemaphore(&l->resource, 1);
    l->readers = 0;
    l->writers = 0;
}

void deleteConnectionLock(ConnectionLock *l)
{
    deleteMutex(&l->readerEntry);
    deleteMutex(&l->writerCount);
    deleteMutex(&l->readerCount);
    deleteSemaphore(&l->readPermission);
    deleteSemaphore(&l->resource);
}

void connectionReadLock(ConnectionLock *l)
{
    lockMutex(&l->readerEntry);
    waitSemaphore(&l->readPermission);
    lockMutex(&l->readerCount);
    if (++l->readers == 1)
        waitSemaphore(&l->resource);
    unlockMutex(&l->readerCount);
    postSemaphore(&l->readPermission);
    unlockMutex(&l->readerEntry);
}

int connectionTryReadLock(ConnectionLock *l)
{
    if (!trylockMutex(&l->readerEntry))
        return 0;
    if (!trywaitSemaphore(&l->readPermission)) {
        unlockMutex(&l->readerEntry);
        return 0;
    }
    lockMutex(&l->readerCount);
    if (l->readers == 0 && !trywaitSemaphore(&l->resource)) {
        unlockMutex(&l->readerCount);
        postSemaphore(&l->readPermission);
        unlockMutex(&l->readerEntry);
        return 0;
    }
    l->readers++;
    unlockMutex(&l->readerCount);
    postSemaphore(&l->readPermission);
    unlockMutex(&l->readerEntry);
    return 1;
}

void connectionReadUnlock(ConnectionLock *l)
{
    lockMutex(&l->readerCount);
    if (--l->readers == 0)
        postSemaphore(&l->resource);
    unlockMutex(&l->readerCount);
}

void connectionWriteLock(ConnectionLock *l)
{
    lockMutex(&l->writerCount);
    if (++l->writers == 1)
        waitSemaphore(&l->readPermission);
    unlockMutex(&l->writerCount);
    waitSemaphore(&l->resource);
}

void connectionWriteUnlock(ConnectionLock *l)
{
    postSemaphore(&l->resource);
    lockMutex(&l->writerCount);
    if (--l->writers == 0)
        postSemaphore(&l->readPermission);
    unlockMutex(&l->writerCount);
}
