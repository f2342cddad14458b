/*
 * Blocking TCP sockets with exact-length reads bounded by a 40-second wait.
 * Descriptors are close-on-exec; a write that cannot progress for 40
 * seconds (a peer that stopped reading) fails instead of blocking.
 */
#ifndef KC_LINUX_SOCKET_H
#define KC_LINUX_SOCKET_H

/* Seconds a read waits for data before it gives up. */
#define SOCKET_READ_TIMEOUT_SEC 40

int connectSocket(const char *host, int port);
int readSocket(int fd, void *buf, unsigned int n);
/* All n bytes, or -1 on an error or when they could not all be written
 * within 40 seconds (writeSocketWithin: within the given seconds). */
int writeSocket(int fd, const void *buf, unsigned int n);
int writeSocketWithin(int fd, const void *buf, unsigned int n, int seconds);
void closeSocket(int fd);
/* Ends both directions at once, waking any thread waiting on fd. */
void shutdownSocket(int fd);
void setSocketNonBlocking(int fd);
/* Waits until fd is readable: 1 ready, 0 time-out, -1 error (EINTR resumed). */
int waitSocketReadable(int fd, int seconds);

#endif
