/*
 * TLS client sessions.  The server certificate is not verified and no SNI
 * is sent: the client is set up with a bare context by design.
 */
#define KC_MODULE "linux/ssl.cpp"
#include "linux/ssl.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <ctime>

#include "linux/mutex.h"
#include "linux/socket.h"
#include "util/debug.h"

void initSslSocket(SslSocket *s)
{
    SSL_library_init();
    SSL_load_error_strings();
    OPENSSL_add_all_algorithms_noconf();
    s->ctx = SSL_CTX_new(SSLv23_client_method());
    KC_ASSERT(NULL != s->ctx, "((void *)0) != pSslSocket->ctx");
    SSL_CTX_set_mode(s->ctx, SSL_MODE_ENABLE_PARTIAL_WRITE |
                                 SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                 SSL_MODE_AUTO_RETRY);
    initMutex(&s->lock);
    s->ssl = NULL;
    s->session = NULL;
    s->fd = -1;
}

void deinitSslSocket(SslSocket *s)
{
    if (s->ctx == NULL)
        return;
    deleteMutex(&s->lock);
    if (s->session != NULL) {
        SSL_SESSION_free(s->session);
        s->session = NULL;
    }
    if (s->ssl != NULL) {
        /* left over from a failed handshake */
        SSL_free(s->ssl);
        s->ssl = NULL;
    }
    SSL_CTX_free(s->ctx);
    s->ctx = NULL;
}

int connectSslSocket(SslSocket *s, int fd)
{
    /* A failed handshake leaves its object behind; free it before reuse. */
    if (s->ssl != NULL && s->fd == -1) {
        SSL_free(s->ssl);
        s->ssl = NULL;
    }
    s->ssl = SSL_new(s->ctx);
    KC_ASSERT(NULL != s->ssl, "((void *)0) != pSslSocket->ssl");
    int ret = SSL_set_fd(s->ssl, fd);
    KC_ASSERT((1) == ret, "(1) == ret");
    if (s->session != NULL) {
        ret = SSL_set_session(s->ssl, s->session);
        KC_ASSERT((1) == ret, "(1) == ret");
    }
    ret = SSL_connect(s->ssl);
    if (ret == 1) {
        s->fd = fd;
        return 1;
    }
    KC_DEBUG(" ret=%d\n", ret);
    return 0;
}

void disconnectSslSocket(SslSocket *s)
{
    if (s->fd == -1)
        return;
    /* The reader may still be inside readSslSocket: end the session under
     * the lock so that it finds fd -1 instead of a freed object. */
    lockMutex(&s->lock);
    if (s->session == NULL)
        s->session = SSL_get1_session(s->ssl);
    SSL_shutdown(s->ssl);
    SSL_free(s->ssl);
    s->ssl = NULL;
    s->fd = -1;
    unlockMutex(&s->lock);
}

/* Seconds left until deadline (monotonic), at least 0. */
static long secondsLeft(const struct timespec *deadline)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long left = (long)(deadline->tv_sec - now.tv_sec);
    if (deadline->tv_nsec > now.tv_nsec)
        left++; /* a part of a second still counts */
    return left > 0 ? left : 0;
}

/* The read and write time-out from now on. */
static void startDeadline(struct timespec *deadline)
{
    clock_gettime(CLOCK_MONOTONIC, deadline);
    deadline->tv_sec += SOCKET_READ_TIMEOUT_SEC;
}

/* Bounds the socket calls SSL_read or SSL_write makes (the rest of a
 * record, a full send buffer) by the time left. */
static void limitSocketCalls(int fd, long seconds, int option)
{
    struct timeval limit = {seconds > 0 ? seconds : 1, 0};
    setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit);
}

/*
 * Reads until n bytes are in, the session ends (the count so far) or no
 * byte has come for 40 seconds (-1): a record whose start arrived and whose
 * rest never comes counts as silence too, so the reader never blocks inside
 * the TLS lock for longer than that.
 */
int readSslSocket(SslSocket *s, void *buf, unsigned int n)
{
    unsigned char *bytes = static_cast<unsigned char *>(buf);
    unsigned int total = 0;
    struct timespec deadline;
    startDeadline(&deadline);
    while (total < n) {
        lockMutex(&s->lock);
        int fd = s->fd;
        int pending = fd == -1 ? 0 : SSL_pending(s->ssl);
        unlockMutex(&s->lock);
        if (fd == -1)
            return (int)total;
        long left = secondsLeft(&deadline);
        if (pending == 0 && (left == 0 || waitSocketReadable(fd, (int)left) != 1))
            return -1;
        lockMutex(&s->lock);
        if (s->fd == -1) {
            unlockMutex(&s->lock);
            return (int)total;
        }
        limitSocketCalls(fd, secondsLeft(&deadline), SO_RCVTIMEO);
        int r = SSL_read(s->ssl, bytes + total, (int)(n - total));
        int e = SSL_get_error(s->ssl, r);
        unlockMutex(&s->lock);
        if (e == SSL_ERROR_NONE) {
            total += (unsigned int)r;
            startDeadline(&deadline);
            continue;
        }
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE)
            continue;
        return (int)total;
    }
    return (int)total;
}

/* Writes all n bytes, or -1 when the session ended or they could not all
 * be written within the time given (a peer that stopped reading). */
int writeSslSocketWithin(SslSocket *s, const void *buf, unsigned int n, int seconds)
{
    const unsigned char *bytes = static_cast<const unsigned char *>(buf);
    unsigned int written = 0;
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += seconds;
    while (written < n) {
        lockMutex(&s->lock);
        if (s->fd == -1) {
            unlockMutex(&s->lock);
            return -1;
        }
        long left = secondsLeft(&deadline);
        if (left == 0) {
            unlockMutex(&s->lock);
            return -1;
        }
        limitSocketCalls(s->fd, left, SO_SNDTIMEO);
        int r = SSL_write(s->ssl, bytes + written, (int)(n - written));
        int e = SSL_get_error(s->ssl, r);
        unlockMutex(&s->lock);
        if (e == SSL_ERROR_NONE) {
            written += (unsigned int)r;
            continue;
        }
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE)
            continue;
        return -1;
    }
    return (int)written;
}

int writeSslSocket(SslSocket *s, const void *buf, unsigned int n)
{
    return writeSslSocketWithin(s, buf, n, SOCKET_READ_TIMEOUT_SEC);
}
