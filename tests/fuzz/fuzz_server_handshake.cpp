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
#include <vector>

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
        // every header line that starts the accept header has the value;
        // lines as the reader takes them: up to 255 bytes, ended by a
        // newline (from the second byte on) or by the byte after a CR, and
        // read as C strings (to the first NUL)
        static const char kAccept[] = "Sec-WebSocket-Accept: ";
        static const char kValue[] = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
        std::vector<std::string> lines;
        std::string line;
        for (char c : read) {
            line += c;
            size_t n = line.size();
            if ((n >= 2 && (line[n - 2] == '\r' || line[n - 1] == '\n')) || n == 255) {
                lines.push_back(line);
                line.clear();
            }
        }
        for (size_t i = 1; i < lines.size(); i++) {
            std::string text(lines[i].c_str());
            if (text.compare(0, strlen(kAccept), kAccept) != 0)
                continue;
            if (text.compare(strlen(kAccept), strlen(kValue), kValue) != 0)
                abort();
        }
    } else if (result != 0) {
        abort();
    }
    // The handshake leaves the connection open; freeing it sends the close.
    freeWebsocketConnection(conn);
    return 0;
}
