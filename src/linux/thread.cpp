/* Thread creation with device-sized stacks. */
#include "linux/thread.h"

#include <csignal>

#include <sys/syscall.h>
#include <unistd.h>

/*
 * Worker threads keep their buffers on the heap or in static storage; the
 * deepest stack use is a shell command run through popen plus cJSON printing
 * (recursive, a few hundred bytes a level).  256 KiB leaves ample room for
 * that while keeping seven threads well under 2 MiB of reserved stack,
 * instead of glibc's default of 8 MiB each (target/footprint.sh prints the
 * resulting figures on the target).  Sanitizer builds need larger frames,
 * so they keep the default.
 */
#if defined(__SANITIZE_ADDRESS__)
#define KC_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KC_SANITIZED 1
#endif
#endif

#ifndef KC_SANITIZED
static const size_t kThreadStackSize = 256 * 1024;
#endif

int createThread(pthread_t *thread, void *(*body)(void *), void *arg,
                 int detached)
{
    pthread_attr_t attr;
    int ret = pthread_attr_init(&attr);
    if (ret != 0)
        return ret;
#ifndef KC_SANITIZED
    pthread_attr_setstacksize(&attr, kThreadStackSize);
#endif
    if (detached)
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    /* The new thread inherits the creator's mask: block SIGTERM around the
     * creation and restore the creator's own mask afterwards. */
    sigset_t term, old;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &old);
    ret = pthread_create(thread, &attr, body, arg);
    pthread_sigmask(SIG_SETMASK, &old, NULL);
    pthread_attr_destroy(&attr);
    return ret;
}

void unblockSigterm(void)
{
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &term, NULL);
}
