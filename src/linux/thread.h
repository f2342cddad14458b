/*
 * Thin layer over thread creation (the thread's identity is in
 * util/thread_id.h).
 */
#ifndef KC_LINUX_THREAD_H
#define KC_LINUX_THREAD_H

#include <pthread.h>

#include "util/thread_id.h"

/*
 * pthread_create with a stack sized for the device; returns its result.
 * The new thread starts with SIGTERM blocked: on today's Linux a SIGTERM
 * sent to the process (kill PID, what a service manager sends) is taken by
 * any thread that does not block it, and only the main thread and the
 * maintenance timer have a part in the agent's SIGTERM behaviour.  A thread
 * that has one calls unblockSigterm() first.  Child processes a thread
 * starts inherit its mask; commands that must be stoppable with SIGTERM
 * (the background log capture) are started by the main thread or the timer.
 */
int createThread(pthread_t *thread, void *(*body)(void *), void *arg,
                 int detached);
/* Lets SIGTERM reach the calling thread. */
void unblockSigterm(void);

#endif
