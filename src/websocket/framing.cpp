/*
 * RFC 6455 framing on an open connection: whole messages in (pings answered
 * here), single masked frames out, and the one teardown path, wbsClose,
 * which every failed read or write runs.
 */
#define KC_MODULE "websocket_client.cpp"
#include "websocket/connection.h"
#include "websocket/framing.h"
#include "util/random.h"

#include <cstring>

#include "linux/mutex.h"
#include "linux/socket.h"
#include "util/debug.h"

/* How long the close frame may take to leave. */
static const int WBS_CLOSE_FRAME_SECONDS = 1;

static void putKey(unsigned char *out, uint32_t key)
{
    out[0] = (unsigned char)(key >> 24);
    out[1] = (unsigned char)(key >> 16);
    out[2] = (unsigned char)(key >> 8);
    out[3] = (unsigned char)key;
}

static void applyMask(unsigned char *data, uint64_t length,
                      const unsigned char *key)
{
    for (uint64_t i = 0; i < length; i++)
        data[i] ^= key[i % 4];
}

/* Ends a failed receive: close, release the read lock, report -1. */
static int failRead(WbsConnection *conn)
{
    wbsClose(conn);
    unlockMutex(&conn->readLock);
    return -1;
}

int wbsReadMessage(WbsConnection *conn, void *buf, unsigned int capacity)
{
    unsigned char *payload = static_cast<unsigned char *>(buf);
    lockMutex(&conn->readLock);
    if (conn->fd == -1) {
        unlockMutex(&conn->readLock);
        return -1;
    }
    for (;;) {
        unsigned char header[14];
        if (wbsReadBytes(conn, header, 2) != 2)
            return failRead(conn);
        int fin = (header[0] & 0x80) != 0;
        int opcode = header[0] & 0x0f;
        int masked = (header[1] & 0x80) != 0;
        unsigned int len7 = header[1] & 0x7f;

        unsigned int extra = len7 == 126 ? 2 : len7 == 127 ? 8 : 0;
        unsigned int keyOffset = extra;
        if (masked)
            extra += 4;
        if (extra > 0 && wbsReadBytes(conn, header, extra) != (int)extra)
            return failRead(conn);

        /* A 64-bit length from the server is never a sane size here: the
         * frame reader refuses the form whatever length it carries. */
        if (len7 == 127)
            return failRead(conn);
        uint64_t length = len7;
        if (len7 == 126)
            length = ((uint64_t)header[0] << 8) | header[1];
        const unsigned char *key = header + keyOffset;

        if (length > capacity)
            return failRead(conn);
        if (wbsReadBytes(conn, payload, (unsigned int)length) != (int)length)
            return failRead(conn);

        switch (opcode) {
        case WBS_OPCODE_TEXT:
        case WBS_OPCODE_BINARY:
            if (!fin)
                return failRead(conn);
            if (masked)
                applyMask(payload, length, key);
            unlockMutex(&conn->readLock);
            return (int)length;
        case WBS_OPCODE_PING:
            if (masked)
                applyMask(payload, length, key);
            if (wbsSendFrame(conn, WBS_OPCODE_PONG, payload,
                             (unsigned int)length) != (int)length)
                return failRead(conn);
            if (conn->onPing != NULL)
                conn->onPing();
            break;
        case WBS_OPCODE_CLOSE:
            return failRead(conn);
        default: /* pong, continuation, reserved: dropped */
            break;
        }
    }
}

int wbsSendFrame(WbsConnection *conn, int opcode, void *data,
                 unsigned int length)
{
    lockMutex(&conn->writeLock);
    if (conn->fd == -1) {
        unlockMutex(&conn->writeLock);
        return -1;
    }
    unsigned int h = 2;
    if (length >= 126)
        h += 2;
    if (length >= 65536)
        h += 6;
    h += 4;

    /* Header area and key area are one block: the key copy of a 14-byte
     * header reaches two bytes into the key area, so such a frame's payload
     * is masked with key bytes 3 and 4 repeated.  Servers unmask with the
     * header's key, which is sent intact. */
    unsigned char block[16];
    memset(block, 0, sizeof block);
    unsigned char *headerArea = block;
    unsigned char *keyArea = block + 12;
    headerArea[0] = (unsigned char)(0x80 | opcode);
    if (length < 126) {
        headerArea[1] = (unsigned char)(0x80 | length);
    } else if (length < 65536) {
        headerArea[1] = 0x80 | 126;
        headerArea[2] = (unsigned char)(length >> 8);
        headerArea[3] = (unsigned char)length;
    } else {
        headerArea[1] = 0x80 | 127;
        uint64_t big = length;
        for (int i = 0; i < 8; i++)
            headerArea[2 + i] = (unsigned char)(big >> (56 - 8 * i));
    }
    putKey(keyArea, nextRandom());
    unsigned char keyBytes[4];
    memcpy(keyBytes, keyArea, 4);
    memcpy(headerArea + (h - 4), keyBytes, 4);

    if (wbsWriteBytes(conn, headerArea, h) != (int)h) {
        wbsClose(conn);
        unlockMutex(&conn->writeLock);
        return -1;
    }
    applyMask(static_cast<unsigned char *>(data), length, keyArea);
    if (wbsWriteBytes(conn, data, length) != (int)length) {
        wbsClose(conn);
        unlockMutex(&conn->writeLock);
        return -1;
    }
    unlockMutex(&conn->writeLock);
    return (int)length;
}

int wbsSendPing(WbsConnection *conn)
{
    lockMutex(&conn->writeLock);
    if (conn->fd == -1) {
        unlockMutex(&conn->writeLock);
        return 0;
    }
    unsigned char frame[6] = {0x89, 0x80, 0, 0, 0, 0};
    putKey(frame + 2, nextRandom());
    if (wbsWriteBytes(conn, frame, sizeof frame) == (int)sizeof frame) {
        unlockMutex(&conn->writeLock);
        return 1;
    }
    wbsClose(conn);
    unlockMutex(&conn->writeLock);
    return 0;
}

/*
 * A close must never wait behind a thread that cannot progress: a sending
 * thread blocked in a write to a peer that stopped reading holds writeLock,
 * and under TLS a reader waiting for the rest of a record holds the TLS
 * lock.  When either is busy, the socket is shut down first, which makes
 * that call fail at once; the close then goes on as usual (its close frame
 * cannot leave a socket that is shut down, and the peer was not taking it).
 */
static void unblockBusyConnection(WbsConnection *conn)
{
    int fd = conn->fd;
    if (fd < 0 || conn->transport.read != NULL)
        return;
    int busy = !trylockMutex(&conn->writeLock);
    if (!busy) {
        if (conn->useTls == 1) {
            busy = !trylockMutex(&conn->tls.lock);
            if (!busy)
                unlockMutex(&conn->tls.lock);
        }
        unlockMutex(&conn->writeLock);
    }
    if (busy)
        shutdownSocket(fd);
}

void wbsClose(WbsConnection *conn)
{
    unblockBusyConnection(conn);
    lockMutex(&conn->writeLock);
    if (conn->fd == -1) {
        unlockMutex(&conn->writeLock);
        return;
    }
    unsigned char frame[6] = {0x88, 0x80, 0, 0, 0, 0};
    putKey(frame + 2, nextRandom());
    /* A close after a write that timed out finds the socket still full:
     * the close frame gets a second, not another 40. */
    wbsWriteBytesWithin(conn, frame, sizeof frame, WBS_CLOSE_FRAME_SECONDS);
    /* Over an attached transport fd is a placeholder, no descriptor: there
     * is no TLS session or socket to end, nothing to retire. */
    if (conn->transport.read == NULL) {
        if (conn->useTls == 1)
            disconnectSslSocket(&conn->tls);
        /* Wakes a reader waiting on the socket at once (instead of after its
         * 40-second wait); the descriptor itself is closed by the next
         * connect. */
        int fd = conn->fd;
        shutdownSocket(fd);
        closeSocket(conn->retiredFd);
        conn->retiredFd = fd;
    }
    conn->fd = -1;
    conn->state = WBS_STATE_CLOSED;
    unlockMutex(&conn->writeLock);
    if (conn->onClose != NULL)
        conn->onClose();
}
