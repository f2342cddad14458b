/* Semaphore wrappers: a failing call (other than an empty trywait) asserts. */
#define KC_MODULE "linux/sem.cpp"
#include "linux/sem.h"

#include <cerrno>

#include "util/debug.h"

void initSemaphore(sem_t *sem, unsigned int value)
{
    int ret = sem_init(sem, 0, value);
    KC_ASSERT_AT(12, 0 == ret, "0 == ret");
}

void deleteSemaphore(sem_t *sem)
{
    int ret = sem_destroy(sem);
    KC_ASSERT_AT(23, 0 == ret, "0 == ret");
}

void waitSemaphore(sem_t *sem)
{
    int ret;
    do {
        ret = sem_wait(sem);
    } while (ret != 0 && errno == EINTR);
    KC_ASSERT_AT(34, 0 == ret, "0 == ret");
}

int trywaitSemaphore(sem_t *sem)
{
    int ret;
    do {
        ret = sem_trywait(sem);
    } while (ret != 0 && errno == EINTR);
    if (ret == 0)
        return 1;
    KC_ASSERT_AT(48, EAGAIN == errno, "EAGAIN == errno");
    return 0;
}

void postSemaphore(sem_t *sem)
{
    int ret = sem_post(sem);
    KC_ASSERT_AT(60, 0 == ret, "0 == ret");
}

int getSemaphoreValue(sem_t *sem)
{
    int value = 0;
    int ret = sem_getvalue(sem, &value);
    KC_ASSERT(0 == ret, "0 == ret");
    return value;
}
