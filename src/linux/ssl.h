/*
 * TLS client over a connected TCP descriptor, with resumption of the first
 * session on every later connection.
 */
#ifndef KC_LINUX_SSL_H
#define KC_LINUX_SSL_H

#include <pthread.h>

#include "linux/openssl_compat.h"

struct SslSocket {
    int fd;                 /* descriptor of the live session, -1 if none */
    SSL_CTX *ctx;           /* client context, made once */
    SSL *ssl;               /* session object of the current connection */
    SSL_SESSION *session;   /* saved at the first disconnect, then reused */
    pthread_mutex_t lock;   /* serialises SSL_read and SSL_write */
};

void initSslSocket(SslSocket *s);
void deinitSslSocket(SslSocket *s);
int connectSslSocket(SslSocket *s, int fd);
void disconnectSslSocket(SslSocket *s);
int readSslSocket(SslSocket *s, void *buf, unsigned int n);
/* All n bytes, or -1 when the session ended or they could not all be
 * written within 40 seconds (writeSslSocketWithin: the given seconds). */
int writeSslSocket(SslSocket *s, const void *buf, unsigned int n);
int writeSslSocketWithin(SslSocket *s, const void *buf, unsigned int n, int seconds);

#endif
