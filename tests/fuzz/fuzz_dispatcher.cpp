/*
 * Fuzzes the dispatcher: the input is a request text; when it parses, it is
 * dispatched and the reply it queued is printed and deleted.  A request
 * whose "params" holds "deviceId" is left out: that is what lets a handler
 * go on to run device commands (dxGetAbout's shell pipelines, and so on).
 * Without it every handler answers -32602 at once.  PATH also points to an
 * empty directory, so that no device command could run anyway.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "client/handlers.h"
#include "json/json_parser.h"
#include "linux/sem.h"
#include "sdk/nimb_sdk.h"

static char s_emptyDir[] = "/tmp/kc-fuzz-path-XXXXXX";

static void removeEmptyDir(void)
{
    rmdir(s_emptyDir);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    initQueue(&g_recvQueue, QUEUE_CAPACITY);
    for (int i = 0; i < SEND_QUEUE_COUNT; i++)
        initQueue(&g_sendQueues[i], QUEUE_CAPACITY);
    if (mkdtemp(s_emptyDir) != nullptr) {
        setenv("PATH", s_emptyDir, 1);
        atexit(removeEmptyDir);
    }
    // The dispatcher's console lines would flood the fuzzer's output.
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    return 0;
}

static bool reachesAHandlerBody(const cJSON *request)
{
    return jsonGetItem(jsonGetItem(request, "params"), "deviceId") != nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    cJSON *request = cJSON_Parse(text.c_str());
    if (request == nullptr)
        return 0;
    if (reachesAHandlerBody(request)) {
        cJSON_Delete(request);
        return 0;
    }
    genericCommandHandler(request);

    JsonQueue &replies = g_sendQueues[SEND_QUEUE_REPLY];
    int waiting = 0;
    sem_getvalue(&replies.filledSlots, &waiting);
    if (waiting != 1)
        abort(); // every request that gets here is answered exactly once
    cJSON *reply = nullptr;
    consumeObject(&replies, &reply);
    char *printed = cJSON_PrintUnformatted(reply);
    if (printed == nullptr)
        abort();
    cJSON_free(printed);
    cJSON_Delete(reply);
    return 0;
}
