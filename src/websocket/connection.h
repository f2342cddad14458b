/*
 * The one WebSocket connection record of the process: the server URL's
 * parts, the socket (or a byte transport in its place, for tests), the TLS
 * session, the two locks and the callbacks.  Made once by
 * initWebsocketConnection, connected again by every connectWebsocket,
 * released by freeWebsocketConnection.
 *
 * Ownership: the record belongs to whoever made it (the connection
 * manager, for the life of the process).  readLock serialises receiving,
 * writeLock each frame's bytes (see websocket/framing.h for the order);
 * fd is read without a lock by the reader and changed only under
 * writeLock or while nobody uses the record.  Buffers passed to the byte
 * calls belong to the caller.
 */
#ifndef KC_WEBSOCKET_CONNECTION_H
#define KC_WEBSOCKET_CONNECTION_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "linux/ssl.h"

enum {
    WBS_STATE_CONNECTING = 1,
    WBS_STATE_OPEN = 2,
    WBS_STATE_CLOSED = 3,
};

#define WBS_FIELD_SIZE 128

typedef void (*WbsCallback)(void);

/*
 * A byte transport in place of the socket (and TLS), for tests and fuzz
 * targets that run the handshake check and the framing over memory.  read
 * behaves like readSocket: it fills n bytes, fewer once the peer's stream
 * has ended, or gives -1; write gives n or -1.  A record never has one
 * unless wbsAttachTransport gave it one (the zeroed record has none).
 */
typedef int (*WbsTransportRead)(void *context, void *buf, unsigned int n);
typedef int (*WbsTransportWrite)(void *context, const void *buf, unsigned int n);

struct WbsTransport {
    WbsTransportRead read;
    WbsTransportWrite write;
    void *context;
};

/* The value of fd while a transport is attached and the connection is
 * open: not -1, so that every "fd == -1 means closed" test still holds,
 * and never used as a descriptor (no read, write, shutdown or close is
 * made on it). */
#define WBS_TRANSPORT_FD (-2)

struct WbsConnection {
    /* Written by the opening and closing paths (under writeLock or with the
     * connection to themselves) while the receiving thread may be reading
     * it under readLock: every access is one atomic load or store, so the
     * reader never has to hold a lock across its 40-second wait. */
    std::atomic<int> fd;
    /* Descriptor of the last connection, shut down but not yet closed: a
     * reader or writer may still be about to use the number, which must not
     * be handed to another file meanwhile.  Closed by the next connect,
     * which runs while nobody uses the connection. */
    int retiredFd;
    pthread_mutex_t readLock;
    pthread_mutex_t writeLock;
    unsigned char key[16];
    unsigned char state;
    char host[WBS_FIELD_SIZE];
    char path[WBS_FIELD_SIZE];
    char origin[WBS_FIELD_SIZE + 1]; /* one spare byte keeps it terminated */
    int port;
    int useTls;
    SslSocket tls;
    WbsCallback onPing;
    WbsCallback onClose;
    /* Set only by wbsAttachTransport; read and write are both non-NULL then. */
    WbsTransport transport;
};

/* The record of a server URL (none of the forms: NULL), not connected. */
WbsConnection *initWebsocketConnection(const char *url, const char *origin,
                                       WbsCallback onPing, WbsCallback onClose);
/* Connects and runs the opening handshake: 1 on success, 0 on failure
 * (nothing logged; the caller retries). */
int connectWebsocket(WbsConnection *conn);
/* Opens conn over transport instead of a socket: fd becomes
 * WBS_TRANSPORT_FD and the state open.  Such a record is never connected
 * with connectWebsocket (which then fails and leaves it alone); closing it
 * touches no descriptor. */
void wbsAttachTransport(WbsConnection *conn, const WbsTransport *transport);
/* Closes an open connection without running onClose, then releases the
 * record. */
void freeWebsocketConnection(WbsConnection *conn);

/* Exactly n bytes in, fewer once the peer has closed, or -1 (an error, the
 * 40-second silence, a closed record). */
int wbsReadBytes(WbsConnection *conn, void *buf, unsigned int n);
/* All n bytes out, or -1 (an error, 40 seconds without progress, a closed
 * record); wbsWriteBytesWithin: within the given seconds. */
int wbsWriteBytes(WbsConnection *conn, const void *buf, unsigned int n);
int wbsWriteBytesWithin(WbsConnection *conn, const void *buf, unsigned int n, int seconds);

#endif
