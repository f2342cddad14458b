/*
 * Fuzzes the check of the server's answer to the upgrade request: the input
 * is the server's answer; the request key is fixed to the sample nonce
 * whose accept value is "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=".
 */
#include <csignal>
#include <cstring>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int peer = -1;
    WbsConnection *conn = kcfuzz::openPairConnection(&peer);
    memcpy(conn->key, "the sample nonce", 16);
    std::thread server(kcfuzz::pump, peer, data, size);
    int result = readServerHandshake(conn);
    if (result != 0 && result != 1)
        abort();
    freeWebsocketConnection(conn);
    server.join();
    return 0;
}
