/*
 * The opening handshake: the upgrade request with subprotocol
 * "nimb-protocol" and the check of the server's answer.
 *
 * Ownership: the request is built in one process-wide buffer
 * (lastClientHandshake points into it; valid until the next handshake);
 * lines passed in are only read.  Called only while nobody else uses the
 * connection (the connection manager holds its write side).
 */
#ifndef KC_WEBSOCKET_HANDSHAKE_H
#define KC_WEBSOCKET_HANDSHAKE_H

#include "websocket/connection.h"

/* Writes the request with a fresh key: 1 written, 0 failed. */
int sendClientHandshake(WbsConnection *conn);
/* Reads and checks the answer: 1 accepted, 0 refused or failed. */
int readServerHandshake(WbsConnection *conn);
/* 1 when a "Sec-WebSocket-Protocol: " line names "nimb-protocol" exactly. */
int checkServerProtocol(const char *line);
/* 1 when a "Sec-WebSocket-Accept: " line carries the accept value of the
 * key sent. */
int verifyServerResponse(WbsConnection *conn, const char *line);
/* Text of the latest handshake request (for tests and debugging). */
const char *lastClientHandshake(void);

#endif
