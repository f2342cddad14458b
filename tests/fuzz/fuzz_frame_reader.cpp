/*
 * Fuzzes the frame reader over an in-memory transport.  The first two input
 * bytes choose the receive capacity (big-endian over the low 15 bits, modulo
 * 16,384; 0 stands for the agent's 16,384), and the buffer is exactly that
 * large, so that any write past it is caught; the top bit of the first byte
 * makes the peer refuse every write (a pong or close that cannot go out).
 * The rest is what the server sends on an open connection.  Messages are
 * read until the connection ends.
 *
 * Oracle: a small model of the reader run over the same bytes gives the
 * messages that must be delivered, the pongs that must be written and the
 * one teardown: a short stream, a frame over capacity, the 64-bit length
 * form, a fragment (FIN clear) and a close frame all end the connection;
 * pings are answered with their payload; pongs, continuations and reserved
 * opcodes are dropped.  The client's own output must be exactly one masked
 * pong per ping and then one empty masked close (nothing when writes are
 * refused), the close callback runs once, and no descriptor is retired.
 */
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sdk/sdk_private.h"
#include "websocket/connection.h"
#include "websocket/framing.h"
#include "fuzz_support.h"
#include "sdk/nimb_sdk.h"

namespace {

int s_pings = 0;
int s_closes = 0;
void onPing(void) { s_pings++; }
void onClose(void) { s_closes++; }

struct Expected {
    std::vector<std::string> messages;
    std::vector<std::string> pongs;
};

/* The reader's behaviour over stream, written out plainly. */
Expected model(const uint8_t *data, size_t size, unsigned int capacity, bool refuseWrites)
{
    Expected e;
    size_t pos = 0;
    for (;;) {
        if (size - pos < 2)
            return e;
        int fin = (data[pos] & 0x80) != 0;
        int opcode = data[pos] & 0x0f;
        int masked = (data[pos + 1] & 0x80) != 0;
        unsigned int len7 = data[pos + 1] & 0x7f;
        pos += 2;
        if (len7 == 127)
            return e; // the 64-bit length form is refused
        size_t extra = (len7 == 126 ? 2 : 0) + (masked ? 4 : 0);
        if (size - pos < extra)
            return e;
        uint64_t length = len7;
        if (len7 == 126)
            length = (uint64_t)data[pos] << 8 | data[pos + 1];
        const uint8_t *key = data + pos + (len7 == 126 ? 2 : 0);
        pos += extra;
        if (length > capacity || size - pos < length)
            return e;
        std::string payload(reinterpret_cast<const char *>(data + pos), (size_t)length);
        pos += (size_t)length;
        if (masked)
            for (size_t i = 0; i < payload.size(); i++)
                payload[i] = (char)(payload[i] ^ key[i % 4]);
        switch (opcode) {
        case WBS_OPCODE_TEXT:
        case WBS_OPCODE_BINARY:
            if (!fin)
                return e;
            e.messages.push_back(payload);
            break;
        case WBS_OPCODE_PING:
            if (refuseWrites)
                return e;
            e.pongs.push_back(payload);
            break;
        case WBS_OPCODE_CLOSE:
            return e;
        default:
            break;
        }
    }
}

/* Splits the client's output into frames; every one must be masked and
 * final.  Gives the unmasked payloads of the pongs and whether the output
 * ended with exactly one empty close frame. */
bool clientFrames(const std::string &wire, std::vector<std::string> *pongs, bool *closed)
{
    size_t pos = 0;
    *closed = false;
    while (pos < wire.size()) {
        if (*closed || wire.size() - pos < 2)
            return false;
        unsigned char b0 = (unsigned char)wire[pos], b1 = (unsigned char)wire[pos + 1];
        if ((b0 & 0x80) == 0 || (b1 & 0x80) == 0)
            return false;
        uint64_t length = b1 & 0x7f;
        pos += 2;
        if (length == 127)
            return false; // never longer than the 16,384-byte receive buffer
        if (length == 126) {
            if (wire.size() - pos < 2)
                return false;
            length = (uint64_t)(unsigned char)wire[pos] << 8 | (unsigned char)wire[pos + 1];
            pos += 2;
        }
        if (wire.size() - pos < 4 + length)
            return false;
        const char *key = wire.data() + pos;
        pos += 4;
        std::string payload = wire.substr(pos, (size_t)length);
        pos += (size_t)length;
        for (size_t i = 0; i < payload.size(); i++)
            payload[i] = (char)(payload[i] ^ key[i % 4]);
        if ((b0 & 0x0f) == WBS_OPCODE_PONG)
            pongs->push_back(payload);
        else if ((b0 & 0x0f) == WBS_OPCODE_CLOSE && length == 0)
            *closed = true;
        else
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    bool refuseWrites = (data[0] & 0x80) != 0;
    unsigned int capacity = ((unsigned int)(data[0] & 0x7f) << 8 | data[1]) % RECEIVE_BUFFER_SIZE;
    if (capacity == 0)
        capacity = RECEIVE_BUFFER_SIZE;
    data += 2;
    size -= 2;

    kcfuzz::MemoryPeer peer;
    peer.data = data;
    peer.size = size;
    peer.refuseWrites = refuseWrites;
    WbsConnection *conn = kcfuzz::openMemoryConnection(&peer);
    conn->onPing = onPing;
    conn->onClose = onClose;
    s_pings = 0;
    s_closes = 0;

    Expected expected = model(data, size, capacity, refuseWrites);
    // Exactly capacity bytes, left uninitialised (zeroing 16 KiB per input
    // would cost more than the read itself).
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[capacity]);
    size_t delivered = 0;
    for (;;) {
        int n = wbsReadMessage(conn, buffer.get(), capacity);
        if (n == -1)
            break;
        if (n < 0 || (unsigned int)n > capacity)
            abort();
        if (delivered >= expected.messages.size() ||
            expected.messages[delivered] != std::string(reinterpret_cast<char *>(buffer.get()), (size_t)n))
            abort(); // a message the server did not send, or not as sent
        delivered++;
    }
    if (delivered != expected.messages.size())
        abort(); // a message was lost
    if (s_closes != 1 || conn->fd != -1 || conn->state != WBS_STATE_CLOSED || conn->retiredFd != -1)
        abort();
    if (s_pings != (int)expected.pongs.size())
        abort();

    std::vector<std::string> pongs;
    bool closed = false;
    if (!clientFrames(peer.written, &pongs, &closed))
        abort(); // the client wrote something that is not a masked pong or close
    if (pongs != expected.pongs || closed == refuseWrites)
        abort();
    if (wbsReadMessage(conn, buffer.get(), capacity) != -1 || s_closes != 1)
        abort(); // a closed connection stays closed, and calls back no more
    freeWebsocketConnection(conn);
    return 0;
}
