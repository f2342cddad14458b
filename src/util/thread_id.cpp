/* The kernel id of the calling thread. */
#include "util/thread_id.h"

#include <sys/syscall.h>
#include <unistd.h>

int currentThreadId(void)
{
    return (int)syscall(SYS_gettid);
}
