/*
 * Which thread is running.  On the device every thread has its own process
 * id; glibc threads share one getpid().  Where the agent tells threads apart
 * (the SIGTERM handler, the timer's id file, the debug prefix) it uses the
 * kernel thread id, which equals getpid() for the main thread.
 */
#ifndef KC_UTIL_THREAD_ID_H
#define KC_UTIL_THREAD_ID_H

/* The kernel id of the calling thread. */
int currentThreadId(void);

#endif
