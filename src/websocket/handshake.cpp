/*
 * Opening a connection: TCP (and TLS for wss), the HTTP upgrade request
 * and the check of the server's answer.
 */
#define KC_MODULE "websocket_client.cpp"
#include "websocket/connection.h"
#include "websocket/handshake.h"
#include "websocket/base64.h"
#include "util/random.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "linux/socket.h"
#include "util/debug.h"

static const char kProtocol[] = "nimb-protocol";
static const char kGuid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
static const char kProtocolHeader[] = "Sec-WebSocket-Protocol:";
static const char kAcceptHeader[] = "Sec-WebSocket-Accept:";

/* The request is built in one process-wide buffer, used only here. */
static char s_request[1024];

const char *lastClientHandshake(void)
{
    return s_request;
}

/* An attached transport takes the place of the socket and TLS.  Otherwise
 * the descriptor is loaded once: a close running meanwhile shuts it down
 * (the call then fails) but keeps its number until the next connect. */
int wbsReadBytes(WbsConnection *conn, void *buf, unsigned int n)
{
    int fd = conn->fd;
    if (fd == -1)
        return -1;
    if (conn->transport.read != NULL)
        return conn->transport.read(conn->transport.context, buf, n);
    if (conn->useTls == 1)
        return readSslSocket(&conn->tls, buf, n);
    return readSocket(fd, buf, n);
}

int wbsWriteBytesWithin(WbsConnection *conn, const void *buf, unsigned int n, int seconds)
{
    int fd = conn->fd;
    if (fd == -1)
        return -1;
    if (conn->transport.write != NULL)
        return conn->transport.write(conn->transport.context, buf, n);
    if (conn->useTls == 1)
        return writeSslSocketWithin(&conn->tls, buf, n, seconds);
    return writeSocketWithin(fd, buf, n, seconds);
}

int wbsWriteBytes(WbsConnection *conn, const void *buf, unsigned int n)
{
    return wbsWriteBytesWithin(conn, buf, n, SOCKET_READ_TIMEOUT_SEC);
}

static void appendLine(const char *fmt, const char *a, int b)
{
    char line[256];
    snprintf(line, sizeof line, fmt, a, b);
    size_t used = strlen(s_request);
    snprintf(s_request + used, sizeof s_request - used, "%s", line);
}

int sendClientHandshake(WbsConnection *conn)
{
    s_request[0] = '\0';
    appendLine("GET /%s HTTP/1.1\r\n", conn->path, 0);
    if (conn->port != 80)
        appendLine("Host: %s:%d\r\n", conn->host, conn->port);
    else
        appendLine("Host: %s\r\n", conn->host, 0);
    appendLine("Upgrade: websocket\r\n", "", 0);
    appendLine("Connection: Upgrade\r\n", "", 0);
    for (int i = 0; i < 16; i++)
        conn->key[i] = (unsigned char)(nextRandom() & 0xff);
    char encoded[64];
    int i = base64Encode(conn->key, 16, encoded, sizeof encoded);
    KC_ASSERT(-1 != i, "-1 != i");
    appendLine("Sec-WebSocket-Key: %s\r\n", encoded, 0);
    appendLine("Sec-WebSocket-Protocol: %s\r\n", kProtocol, 0);
    appendLine("Sec-WebSocket-Version: 13\r\n", "", 0);
    appendLine("Origin: %s\r\n", conn->origin, 0);
    appendLine("\r\n", "", 0);
    return wbsWriteBytes(conn, s_request, (unsigned int)strlen(s_request)) != -1;
}

/*
 * Reads one line a byte at a time into line[256], terminated, keeping its
 * "\r\n".  A line ends once two bytes are in and the one before the last is
 * "\r" or the last is "\n"; 255 bytes without an end also stop it, with
 * *ended 0.  Returns the length, or -1 when a read failed or the peer closed
 * the connection (a closed peer would otherwise feed an endless run of empty
 * reads).
 */
static int readLine(WbsConnection *conn, char *line, int *ended)
{
    int pos = 0;
    *ended = 0;
    while (pos < 255) {
        int got = wbsReadBytes(conn, line + pos, 1);
        if (got != 1)
            return -1;
        pos++;
        if (pos >= 2 && (line[pos - 2] == '\r' || line[pos - 1] == '\n')) {
            *ended = 1;
            break;
        }
    }
    line[pos] = '\0';
    return pos;
}

int checkServerProtocol(const char *line)
{
    size_t skip = strlen("Sec-WebSocket-Protocol: ");
    size_t len = strlen(line);
    if (len < skip + 2)
        return 0;
    size_t valueLen = len - skip - 2;
    return valueLen == strlen(kProtocol) &&
           memcmp(line + skip, kProtocol, valueLen) == 0;
}

int verifyServerResponse(WbsConnection *conn, const char *line)
{
    size_t skip = strlen("Sec-WebSocket-Accept: ");
    size_t len = strlen(line);
    if (len < skip + 2)
        return 0;
    size_t valueLen = len - skip - 2;

    char encodedKey[64];
    int ret = base64Encode(conn->key, 16, encodedKey, sizeof encodedKey);
    KC_ASSERT(-1 != ret, "-1 != ret");
    char text[128];
    snprintf(text, sizeof text, "%s%s", encodedKey, kGuid);
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(text), strlen(text), digest);
    char expected[64];
    ret = base64Encode(digest, SHA_DIGEST_LENGTH, expected, sizeof expected);
    KC_ASSERT(-1 != ret, "-1 != ret");
    return valueLen == strlen(expected) &&
           memcmp(line + skip, expected, valueLen) == 0;
}

int readServerHandshake(WbsConnection *conn)
{
    char line[256];
    int ended = 0;
    if (readLine(conn, line, &ended) < 0 || !ended)
        return 0;
    int status = 0;
    if (sscanf(line, "HTTP/1.1 %d", &status) != 1 || status != 101)
        return 0;
    for (;;) {
        if (readLine(conn, line, &ended) < 0)
            return 0;
        if (strncmp(line, kProtocolHeader, strlen(kProtocolHeader)) == 0) {
            if (!checkServerProtocol(line))
                return 0;
        } else if (strncmp(line, kAcceptHeader, strlen(kAcceptHeader)) == 0) {
            if (!verifyServerResponse(conn, line))
                return 0;
        } else if (line[0] == '\r' && line[1] == '\n') {
            return 1;
        }
    }
}

void wbsAttachTransport(WbsConnection *conn, const WbsTransport *transport)
{
    KC_ASSERT(transport != NULL && transport->read != NULL && transport->write != NULL,
              "transport != NULL && transport->read != NULL && transport->write != NULL");
    conn->transport = *transport;
    conn->fd = WBS_TRANSPORT_FD;
    conn->state = WBS_STATE_OPEN;
}

int connectWebsocket(WbsConnection *conn)
{
    /* A record over a transport has no socket to make (and its fd is no
     * descriptor to close). */
    if (conn->transport.read != NULL)
        return 0;
    /* Runs while no reader or writer uses the connection: sockets of the
     * last connection and of a failed earlier attempt can be closed now. */
    closeSocket(conn->retiredFd);
    conn->retiredFd = -1;
    closeSocket(conn->fd);
    conn->fd = -1;
    int fd = connectSocket(conn->host, conn->port);
    if (fd == -1)
        return 0;
    conn->fd = fd;
    conn->state = WBS_STATE_OPEN;
    if (conn->useTls == 1 && connectSslSocket(&conn->tls, fd) == 0) {
        disconnectSslSocket(&conn->tls);
        return 0;
    }
    seedRandom((uint32_t)(time(NULL) % 874563));
    if (sendClientHandshake(conn) && readServerHandshake(conn) == 1)
        return 1;
    /* A refused upgrade (a proxy answering 503, say) ends the TLS session
     * here: every retry would otherwise leave one behind. */
    if (conn->useTls == 1)
        disconnectSslSocket(&conn->tls);
    return 0;
}
