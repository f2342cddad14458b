/*
 * Server URL parsing and the connection record's life.
 *
 * Accepted forms, tried in this order (scheme in lower case only):
 *   ws://host:port/path  ws://host/path  ws://host:port  ws://host
 *   wss://host:port/path wss://host/path wss://host:port wss://host
 * The host runs up to the first ':' or '/', the path is the next run of
 * non-blank characters after the '/'.  A port that is not a number makes
 * the URL fall through to a shorter form ("ws://h:abc" is host h, port 80).
 * Host and path are bounded to 127 characters; a longer one is refused
 * rather than cut, so the agent never talks to a truncated host name.
 */
#define KC_MODULE "websocket_client.cpp"
#include "websocket/connection.h"
#include "websocket/framing.h"
#include "websocket/url.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "linux/mutex.h"
#include "linux/socket.h"
#include "util/debug.h"

/* Like sscanf's %d: blanks, optional sign, at least one digit. */
static const char *scanInt(const char *p, int *value)
{
    const char *q = p;
    while (isspace((unsigned char)*q))
        q++;
    if (*q == '+' || *q == '-')
        q++;
    if (!isdigit((unsigned char)*q))
        return NULL;
    errno = 0;
    char *end = NULL;
    long v = strtol(p, &end, 10);
    if (v > INT_MAX)
        v = INT_MAX;
    if (v < INT_MIN)
        v = INT_MIN;
    *value = (int)v;
    return end;
}

/* Like sscanf's %s: blanks skipped, then one word; length or -1 if none. */
static int scanWord(const char *p, const char **start)
{
    while (isspace((unsigned char)*p))
        p++;
    size_t n = 0;
    while (p[n] != '\0' && !isspace((unsigned char)p[n]))
        n++;
    *start = p;
    return n == 0 ? -1 : (int)n;
}

int parseServerUrl(const char *url, char *host, int *port, char *path,
                   int *useTls)
{
    const char *p;
    int defaultPort;
    if (strncmp(url, "ws://", 5) == 0) {
        p = url + 5;
        defaultPort = 80;
        *useTls = 0;
    } else if (strncmp(url, "wss://", 6) == 0) {
        p = url + 6;
        defaultPort = 443;
        *useTls = 1;
    } else {
        return 0;
    }

    size_t hostLen = strcspn(p, ":/");
    if (hostLen == 0 || hostLen >= WBS_FIELD_SIZE)
        return 0;
    memcpy(host, p, hostLen);
    host[hostLen] = '\0';
    p += hostLen;

    const char *word = NULL;
    int wordLen = -1;
    int parsedPort = 0;
    const char *afterPort = *p == ':' ? scanInt(p + 1, &parsedPort) : NULL;

    if (afterPort != NULL && *afterPort == '/')
        wordLen = scanWord(afterPort + 1, &word);
    if (wordLen > 0) { /* host:port/path */
        *port = parsedPort;
    } else if (*p == '/' && (wordLen = scanWord(p + 1, &word)) > 0) {
        *port = defaultPort; /* host/path */
    } else {
        *port = afterPort != NULL ? parsedPort : defaultPort;
        path[0] = '\0';
        return 1;
    }
    if (wordLen >= WBS_FIELD_SIZE)
        return 0;
    memcpy(path, word, (size_t)wordLen);
    path[wordLen] = '\0';
    return 1;
}

WbsConnection *initWebsocketConnection(const char *url, const char *origin,
                                       WbsCallback onPing, WbsCallback onClose)
{
    WbsConnection *conn =
        static_cast<WbsConnection *>(calloc(1, sizeof(WbsConnection)));
    KC_ASSERT(NULL != conn, "((void *)0) != wbsConnection");
    conn->fd = -1;
    conn->retiredFd = -1;
    conn->state = WBS_STATE_CONNECTING;
    initMutex(&conn->readLock);
    initMutex(&conn->writeLock);
    conn->useTls = 0;

    int useTls = 0;
    if (url == NULL ||
        !parseServerUrl(url, conn->host, &conn->port, conn->path, &useTls)) {
        freeWebsocketConnection(conn);
        return NULL;
    }
    if (strncasecmp(url, "wss", 3) == 0) {
        conn->useTls = 1;
        initSslSocket(&conn->tls);
    }
    if (origin != NULL)
        strncpy(conn->origin, origin, WBS_FIELD_SIZE);
    conn->onPing = onPing;
    conn->onClose = onClose;
    return conn;
}

void freeWebsocketConnection(WbsConnection *conn)
{
    if (conn == NULL)
        return;
    if (conn->state == WBS_STATE_OPEN) {
        conn->onClose = NULL;
        wbsClose(conn);
    }
    closeSocket(conn->retiredFd);
    deleteMutex(&conn->writeLock);
    deleteMutex(&conn->readLock);
    if (conn->useTls)
        deinitSslSocket(&conn->tls);
    free(conn);
}
