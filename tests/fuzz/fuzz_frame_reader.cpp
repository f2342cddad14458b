/*
 * Fuzzes the frame reader.  The first two input bytes choose the receive
 * capacity (big-endian, modulo 16,384; 0 stands for the agent's 16,384),
 * and the buffer is exactly that large, so that any write past it is
 * caught; the rest is what the server sends on an open connection.
 * Messages are read until the connection ends; the pongs and the close
 * frame the client writes are drained.
 */
#include <csignal>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "sdk/nimb_sdk.h"

static int s_pings = 0;
static int s_closes = 0;
static void onPing(void) { s_pings++; }
static void onClose(void) { s_closes++; }

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    unsigned int capacity = ((unsigned int)data[0] << 8 | data[1]) % RECEIVE_BUFFER_SIZE;
    if (capacity == 0)
        capacity = RECEIVE_BUFFER_SIZE;
    data += 2;
    size -= 2;
    int peer = -1;
    WbsConnection *conn = kcfuzz::openPairConnection(&peer);
    conn->onPing = onPing;
    conn->onClose = onClose;
    s_closes = 0;
    std::thread server(kcfuzz::pump, peer, data, size);

    std::vector<unsigned char> buffer(capacity);
    for (;;) {
        int n = wbsReadMessage(conn, buffer.data(), capacity);
        if (n == -1)
            break;
        if (n < 0 || (unsigned int)n > capacity)
            abort();
    }
    if (s_closes != 1 || conn->fd != -1 || conn->state != WBS_STATE_CLOSED)
        abort();
    freeWebsocketConnection(conn);
    server.join();
    return 0;
}
