/*
 * Thin layer over thread creation and thread identity.
 *
 * On the device every thread has its own process id; glibc threads share one
 * getpid().  Where the agent tells threads apart (the SIGTERM handler, the
 * timer's id file, the debug prefix) it uses the kernel thread id instead,
 * which equals getpid() for the main thread.
 */
#ifndef KC_LINUX_THREAD_H
#define KC_LINUX_THREAD_H

#include <pthread.h>

int currentThreadId(void);

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
