/*
 * Helpers shared by the fuzz targets: a connection record in the open state
 * whose socket is one end of a socketpair, and a pump thread that plays the
 * server on the other end (feeds the input, then hangs up, while draining
 * whatever the client writes so that neither side can block the other).
 */
#ifndef KC_TESTS_FUZZ_FUZZ_SUPPORT_H
#define KC_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <thread>

#include "websocket/websocket_client.h"

namespace kcfuzz {

inline WbsConnection *openPairConnection(int *peer)
{
    WbsConnection *conn = initWebsocketConnection("ws://127.0.0.1:1/", "fuzz", nullptr, nullptr);
    if (conn == nullptr)
        abort();
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        abort();
    conn->fd = sv[0];
    conn->state = WBS_STATE_OPEN;
    *peer = sv[1];
    return conn;
}

/* Writes data to fd, then shuts its sending side, draining fd meanwhile and
 * afterwards until the client closes; closes fd at the end. */
inline void pump(int fd, const uint8_t *data, size_t size)
{
    size_t sent = 0;
    bool writing = true;
    if (size == 0) {
        shutdown(fd, SHUT_WR);
        writing = false;
    }
    char sink[4096];
    for (;;) {
        struct pollfd p = {fd, (short)(POLLIN | (writing ? POLLOUT : 0)), 0};
        if (poll(&p, 1, 10000) <= 0)
            break;
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            ssize_t got = read(fd, sink, sizeof sink);
            if (got <= 0 && !writing)
                break;
            if (got <= 0)
                writing = false; // the client has gone
        }
        if (writing && (p.revents & POLLOUT)) {
            ssize_t put = write(fd, data + sent, size - sent);
            if (put > 0)
                sent += (size_t)put;
            if (put < 0 || sent == size) {
                shutdown(fd, SHUT_WR);
                writing = false;
            }
        }
    }
    close(fd);
}

} // namespace kcfuzz

#endif
