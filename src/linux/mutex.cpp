/* Recursive mutex wrappers: a failing call is an assertion. */
#define KC_MODULE "linux/mutex.cpp"
#include "linux/mutex.h"

#include <cerrno>

#include "util/debug.h"

void initMutex(pthread_mutex_t *mutex)
{
    pthread_mutexattr_t attr;
    int ret = pthread_mutexattr_init(&attr);
    KC_ASSERT_AT(12, 0 == ret, "0==ret");
    ret = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    KC_ASSERT_AT(17, 0 == ret, "0==ret");
    ret = pthread_mutex_init(mutex, &attr);
    KC_ASSERT_AT(22, 0 == ret, "0==ret");
    pthread_mutexattr_destroy(&attr);
}

void deleteMutex(pthread_mutex_t *mutex)
{
    int ret = pthread_mutex_destroy(mutex);
    KC_ASSERT_AT(38, 0 == ret, "0==ret");
}

void lockMutex(pthread_mutex_t *mutex)
{
    int ret = pthread_mutex_lock(mutex);
    KC_ASSERT_AT(49, 0 == ret, "0==ret");
}

int trylockMutex(pthread_mutex_t *mutex)
{
    int ret = pthread_mutex_trylock(mutex);
    if (ret == 0)
        return 1;
    KC_ASSERT(EBUSY == ret, "EBUSY == ret");
    return 0;
}

void unlockMutex(pthread_mutex_t *mutex)
{
    int ret = pthread_mutex_unlock(mutex);
    KC_ASSERT_AT(60, 0 == ret, "0==ret");
}
