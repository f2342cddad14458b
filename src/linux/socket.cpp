/* TCP connect, bounded exact-length read, full write, close. */
#define KC_MODULE "linux/socket.cpp"
#include "linux/socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "util/debug.h"

int connectSocket(const char *host, int port)
{
    char portText[16];
    snprintf(portText, sizeof portText, "%d", port);

    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo *list = NULL;
    if (getaddrinfo(host, portText, &hints, &list) != 0)
        return -1;

    int fd = -1;
    for (struct addrinfo *ai = list; ai != NULL; ai = ai->ai_next) {
        /* close-on-exec: the commands the agent runs (and what they leave
         * running in the background) must not hold the connection open */
        fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd == -1)
            continue;
        if (connect(fd, ai->ai_addr, ai->ai_addrlen) == 0)
            break;
        closeSocket(fd);
        fd = -1;
    }
    freeaddrinfo(list);
    if (fd == -1)
        return -1;

    int on = 1;
    int ret = setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    KC_ASSERT(-1 != ret, "-1 != ret");
    ret = setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    KC_ASSERT(-1 != ret, "-1 != ret");
    /* A write to a peer that stopped reading gives up after the read's
     * time-out instead of blocking for ever; a read inside the TLS layer
     * (the rest of a record whose start arrived) is bounded the same way. */
    struct timeval limit = {SOCKET_READ_TIMEOUT_SEC, 0};
    ret = setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    KC_ASSERT(-1 != ret, "-1 != ret");
    ret = setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    KC_ASSERT(-1 != ret, "-1 != ret");
    return fd;
}

int waitSocketReadable(int fd, int seconds)
{
    for (;;) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(fd, &readSet);
        struct timeval timeout = {seconds, 0};
        int ret = select(fd + 1, &readSet, NULL, NULL, &timeout);
        if (ret == -1 && errno == EINTR)
            continue;
        if (ret == -1)
            return -1;
        return ret > 0 ? 1 : 0;
    }
}

int readSocket(int fd, void *buf, unsigned int n)
{
    unsigned char *bytes = static_cast<unsigned char *>(buf);
    unsigned int total = 0;
    while (total < n) {
        if (waitSocketReadable(fd, SOCKET_READ_TIMEOUT_SEC) != 1)
            return -1;
        ssize_t got = read(fd, bytes + total, n - total);
        if (got == 0)
            break;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        total += (unsigned int)got;
    }
    return (int)total;
}

int writeSocketWithin(int fd, const void *buf, unsigned int n, int seconds)
{
    const unsigned char *bytes = static_cast<const unsigned char *>(buf);
    unsigned int written = 0;
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += seconds;
    while (written < n) {
        /* one deadline for the whole text: a peer that takes a byte now
         * and then does not restart the wait */
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long long leftUs = (long long)(deadline.tv_sec - now.tv_sec) * 1000000 +
                           (deadline.tv_nsec - now.tv_nsec) / 1000;
        if (leftUs <= 0)
            return -1;
        struct timeval limit = {(time_t)(leftUs / 1000000), (suseconds_t)(leftUs % 1000000)};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        ssize_t put = write(fd, bytes + written, n - written);
        if (put < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        written += (unsigned int)put;
    }
    return (int)written;
}

int writeSocket(int fd, const void *buf, unsigned int n)
{
    return writeSocketWithin(fd, buf, n, SOCKET_READ_TIMEOUT_SEC);
}

void closeSocket(int fd)
{
    if (fd == -1)
        return;
    shutdownSocket(fd);
    close(fd);
}

void shutdownSocket(int fd)
{
    if (fd != -1)
        shutdown(fd, SHUT_RDWR);
}

void setSocketNonBlocking(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    KC_ASSERT(flags != -1, "flags != -1");
    int ret = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    KC_ASSERT(ret != -1, "ret != -1");
}
