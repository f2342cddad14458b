/*
 * Process-private unnamed semaphores whose unexpected failures stop the
 * process.  A wait interrupted by a signal handler (EINTR) is resumed: on
 * today's Linux any thread may see EINTR when SIGTERM is handled, and that
 * must not turn into an assertion.
 */
#ifndef KC_LINUX_SEM_H
#define KC_LINUX_SEM_H

#include <semaphore.h>

void initSemaphore(sem_t *sem, unsigned int value);
void deleteSemaphore(sem_t *sem);
void waitSemaphore(sem_t *sem);
/* 1 when the semaphore was taken, 0 when it was zero. */
int trywaitSemaphore(sem_t *sem);
void postSemaphore(sem_t *sem);
int getSemaphoreValue(sem_t *sem);

#endif
