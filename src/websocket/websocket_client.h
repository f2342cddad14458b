/*
 * WebSocket client: the one connection record of the process, the server
 * URL, the opening handshake with subprotocol "nimb-protocol", and RFC 6455
 * framing (masked frames out, whole messages in, pings answered inside).
 */
#ifndef KC_WEBSOCKET_CLIENT_H
#define KC_WEBSOCKET_CLIENT_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "linux/ssl.h"
#include "util/random.h"

enum {
    WBS_STATE_CONNECTING = 1,
    WBS_STATE_OPEN = 2,
    WBS_STATE_CLOSED = 3,
};

enum {
    WBS_OPCODE_CONTINUATION = 0,
    WBS_OPCODE_TEXT = 1,
    WBS_OPCODE_BINARY = 2,
    WBS_OPCODE_CLOSE = 8,
    WBS_OPCODE_PING = 9,
    WBS_OPCODE_PONG = 10,
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


/* Base64 with "=" padding; characters written (terminated), or -1. */
int base64Encode(const unsigned char *in, int inLen, char *out, int outCap);

/* Host, port, path and transport of a server URL; 1 if one form matched. */
int parseServerUrl(const char *url, char *host, int *port, char *path,
                   int *useTls);

WbsConnection *initWebsocketConnection(const char *url, const char *origin,
                                       WbsCallback onPing, WbsCallback onClose);
int connectWebsocket(WbsConnection *conn);
/* Opens conn over transport instead of a socket: fd becomes
 * WBS_TRANSPORT_FD and the state open.  Such a record is never connected
 * with connectWebsocket (which then fails and leaves it alone); closing it
 * touches no descriptor. */
void wbsAttachTransport(WbsConnection *conn, const WbsTransport *transport);
void freeWebsocketConnection(WbsConnection *conn);

int wbsReadBytes(WbsConnection *conn, void *buf, unsigned int n);
int wbsWriteBytes(WbsConnection *conn, const void *buf, unsigned int n);
/* The same within the given seconds (the close frame's short wait). */
int wbsWriteBytesWithin(WbsConnection *conn, const void *buf, unsigned int n, int seconds);

int sendClientHandshake(WbsConnection *conn);
int readServerHandshake(WbsConnection *conn);
int checkServerProtocol(const char *line);
int verifyServerResponse(WbsConnection *conn, const char *line);
/* Text of the latest handshake request (for tests and debugging). */
const char *lastClientHandshake(void);

int wbsReadMessage(WbsConnection *conn, void *buf, unsigned int capacity);
int wbsSendFrame(WbsConnection *conn, int opcode, void *data,
                 unsigned int length);
int wbsSendPing(WbsConnection *conn);
void wbsClose(WbsConnection *conn);

#endif
