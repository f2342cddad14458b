/*
 * Recursive POSIX mutexes whose every unexpected failure stops the process.
 */
#ifndef KC_LINUX_MUTEX_H
#define KC_LINUX_MUTEX_H

#include <pthread.h>

void initMutex(pthread_mutex_t *mutex);
void deleteMutex(pthread_mutex_t *mutex);
void lockMutex(pthread_mutex_t *mutex);
/* 1 when the mutex was taken (the calling thread may already hold it), 0
 * when another thread holds it. */
int trylockMutex(pthread_mutex_t *mutex);
void unlockMutex(pthread_mutex_t *mutex);

#endif
