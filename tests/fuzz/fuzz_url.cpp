/*
 * Fuzzes the server URL parser: the input, as text, is given to
 * initWebsocketConnection; an accepted URL must yield terminated host and
 * path fields within their 128 bytes and a port for its scheme.
 */
#include <cstdlib>
#include <cstring>
#include <string>

#include "websocket/websocket_client.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string url(reinterpret_cast<const char *>(data), size);
    WbsConnection *conn = initWebsocketConnection(url.c_str(), url.c_str(), nullptr, nullptr);
    if (conn == nullptr)
        return 0;
    if (memchr(conn->host, '\0', sizeof conn->host) == nullptr ||
        memchr(conn->path, '\0', sizeof conn->path) == nullptr ||
        memchr(conn->origin, '\0', sizeof conn->origin) == nullptr)
        abort();
    if (conn->host[0] == '\0')
        abort();
    if (conn->useTls != (strncmp(url.c_str(), "wss://", 6) == 0 ? 1 : 0))
        abort();
    if (conn->fd != -1 || conn->state != WBS_STATE_CONNECTING)
        abort();
    freeWebsocketConnection(conn);
    return 0;
}
