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

/* pthread_create with a stack sized for the device; returns its result. */
int createThread(pthread_t *thread, void *(*body)(void *), void *arg,
                 int detached);

#endif
