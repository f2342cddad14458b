/*
 * RFC 6455 framing on an open connection: whole messages in (pings
 * answered inside), single masked frames out, and the one teardown path,
 * wbsClose, which every failed read or write runs.
 *
 * Ownership and locks: buffers belong to the caller.  wbsSendFrame masks
 * the payload in data IN PLACE, so the caller's buffer is garbled
 * afterwards; wbsReadMessage unmasks in place in buf.  wbsReadMessage holds
 * readLock for the whole call (and writeLock while it answers a ping);
 * senders hold writeLock per frame; the order is always readLock, then
 * writeLock.  wbsClose runs onClose after releasing writeLock, exactly
 * once per teardown.
 */
#ifndef KC_WEBSOCKET_FRAMING_H
#define KC_WEBSOCKET_FRAMING_H

#include "websocket/connection.h"

enum {
    WBS_OPCODE_CONTINUATION = 0,
    WBS_OPCODE_TEXT = 1,
    WBS_OPCODE_BINARY = 2,
    WBS_OPCODE_CLOSE = 8,
    WBS_OPCODE_PING = 9,
    WBS_OPCODE_PONG = 10,
};

/* The next text or binary message into buf (at most capacity bytes, not
 * terminated): its length, or -1 when the connection is not open or has
 * just been closed by this call. */
int wbsReadMessage(WbsConnection *conn, void *buf, unsigned int capacity);
/* One masked frame with FIN set: length, or -1 (the connection is closed
 * then).  data is masked in place. */
int wbsSendFrame(WbsConnection *conn, int opcode, void *data,
                 unsigned int length);
/* An empty ping: 1 sent, 0 failed. */
int wbsSendPing(WbsConnection *conn);
/* Sends an empty close frame, tears the connection down and runs onClose;
 * nothing when it is closed already. */
void wbsClose(WbsConnection *conn);

#endif
