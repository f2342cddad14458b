/*
 * A select() seen by the code under test that can stand for a long
 * silence without the test waiting for it.  While g_silentSelectFd names a
 * descriptor, a wait for it to become readable looks at it once without
 * waiting: data already there is reported as usual, otherwise the wait ends
 * as though its whole bound had passed with nothing arriving, and the bound
 * asked for is kept in g_silentSelectSeconds.  Every other call is the C
 * library's.
 */
#include <dlfcn.h>
#include <sys/select.h>

#include "test_support.h"

std::atomic<int> kctest::g_silentSelectFd{-1};
std::atomic<long> kctest::g_silentSelectSeconds{-1};

extern "C" int select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                      struct timeval *timeout)
{
    typedef int (*Real)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "select"));
    int fd = kctest::g_silentSelectFd.load();
    if (fd < 0 || fd >= nfds || readfds == nullptr || !FD_ISSET(fd, readfds))
        return real(nfds, readfds, writefds, exceptfds, timeout);
    struct timeval now = {0, 0};
    int ret = real(nfds, readfds, writefds, exceptfds, &now);
    if (ret == 0)
        kctest::g_silentSelectSeconds = timeout != nullptr ? timeout->tv_sec : -1;
    return ret;
}
