/*
 * Fuzzes the check of the server's answer to the upgrade request over an
 * in-memory transport: the input is the server's answer; the request key is
 * fixed to the sample nonce whose accept value is
 * "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=".
 *
 * Oracle: the check writes nothing and never reads past what it accepts;
 * an accepted answer (1) began with a "HTTP/1.1 101" status line, ends
 * with "\r\n" (its empty line), and every accept line in it carries the
 * accept value of the nonce (a wrong one is refused).  Anything else is
 * refused with 0.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    kcfuzz::MemoryPeer peer;
    peer.data = data;
    peer.size = size;
    WbsConnection *conn = kcfuzz::openMemoryConnection(&peer);
    memcpy(conn->key, "the sample nonce", 16);
    int result = readServerHandshake(conn);
    if (peer.writeCalls != 0)
        abort();
    if (peer.pos > size)
        abort();
    if (result == 1) {
        std::string read(reinterpret_cast<const char *>(data), peer.pos);
        int status = 0;
        if (sscanf(read.c_str(), "HTTP/1.1 %d", &status) != 1 || status != 101)
            abort();
        if (read.size() < 4 || read.compare(read.size() - 2, 2, "\r\n") != 0)
            abort();
        // every header line that starts the accept header has the value
        static const char kAccept[] = "Sec-WebSocket-Accept: ";
        static const char kValue[] = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
        for (size_t at = read.find(kAccept); at != std::string::npos;
             at = read.find(kAccept, at + 1)) {
            if (at != 0 && read[at - 1] != '\n')
                continue; // not at the start of a line
            if (read.compare(at + strlen(kAccept), strlen(kValue), kValue) != 0)
                abort();
        }
    } else if (result != 0) {
        abort();
    }
    // The handshake leaves the connection open; freeing it sends the close.
    freeWebsocketConnection(conn);
    return 0;
}
