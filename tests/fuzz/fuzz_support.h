/*
 * Helpers shared by the fuzz targets: a connection record in the open state
 * over an in-memory transport (no socket, no thread).  The peer's stream is
 * the fuzz input: reads take from it as a socket read would (all that was
 * asked for, fewer at its end, then 0); writes are kept, or refused when
 * the peer takes no more.
 */
#ifndef KC_TESTS_FUZZ_FUZZ_SUPPORT_H
#define KC_TESTS_FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "websocket/connection.h"

/* The peer's side is not what is being fuzzed: its comparisons are kept
 * out of the coverage feedback (clang; other compilers build it plainly). */
#if defined(__clang__)
#define KC_FUZZ_NOT_COVERED __attribute__((no_sanitize("coverage")))
#else
#define KC_FUZZ_NOT_COVERED
#endif

namespace kcfuzz {

struct MemoryPeer {
    const uint8_t *data = nullptr; /* what the peer sends */
    size_t size = 0;
    size_t pos = 0;                /* bytes the client has read */
    bool refuseWrites = false;     /* the peer has stopped reading */
    std::string written;           /* what the client sent */
    int writeCalls = 0;
};

KC_FUZZ_NOT_COVERED inline int memoryRead(void *context, void *buf, unsigned int n)
{
    MemoryPeer *peer = static_cast<MemoryPeer *>(context);
    size_t left = peer->size - peer->pos;
    size_t take = n < left ? n : left;
    if (take > 0)
        memcpy(buf, peer->data + peer->pos, take);
    peer->pos += take;
    return (int)take;
}

KC_FUZZ_NOT_COVERED inline int memoryWrite(void *context, const void *buf, unsigned int n)
{
    MemoryPeer *peer = static_cast<MemoryPeer *>(context);
    peer->writeCalls++;
    if (peer->refuseWrites)
        return -1;
    peer->written.append(static_cast<const char *>(buf), n);
    return (int)n;
}

/* A record of url in the open state over peer. */
inline WbsConnection *openMemoryConnection(MemoryPeer *peer,
                                           const char *url = "ws://127.0.0.1:1/")
{
    WbsConnection *conn = initWebsocketConnection(url, "fuzz", nullptr, nullptr);
    if (conn == nullptr)
        abort();
    WbsTransport transport = {memoryRead, memoryWrite, peer};
    wbsAttachTransport(conn, &transport);
    if (conn->fd != WBS_TRANSPORT_FD || conn->state != WBS_STATE_OPEN)
        abort();
    return conn;
}

} // namespace kcfuzz

#endif
