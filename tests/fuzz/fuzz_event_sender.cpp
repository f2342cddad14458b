/*
 * Fuzzes the event sender's reading loop (sendEventLogFrom, the body of
 * sendEventLog) over an event file of its own.  No command runs: a
 * recorded shell records the file's emptying.
 *
 * Input: the event file's bytes.
 *
 * Oracle (the file is cut into lines here as a line reader of 1,024 bytes
 * reads it: at each newline, or after 1,023 bytes):
 *   - when no line is an event (parse_event_line) nothing is sent and no
 *     command runs;
 *   - otherwise exactly one notification goes to the event queue, and
 *     nothing to the others: {"jsonrpc":"2.0","method":
 *     "dsEventNotifications","params":{"deviceId":<the MAC address>,
 *     "version":0,"events":[...]}} with one event a line that is one, in
 *     file order, each {"number","dateTime","type","event"} as the line
 *     gives them; then the file is emptied with exactly the command
 *     echo "" > /tmp/cEvtLog, and nothing else runs.
 */
#include <unistd.h>

#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_oracles.h"
#include "sdk/sdk_private.h"
#include "client/events.h"
#include "client/handlers.h"
#include "linux/sem.h"
#include "recorded_shell.h"
#include "sdk/nimb_sdk.h"

namespace {

const char kDeviceMac[] = "02:4b:43:46:55:5a";

char s_dir[] = "/tmp/kc-fuzz-events-XXXXXX";
std::string s_path;
kctest::RecordedShell *s_shell = nullptr;

void removeDir(void)
{
    unlink(s_path.c_str());
    rmdir(s_dir);
}

using kcfuzz::filled;
using kcfuzz::readerLines;
using kcfuzz::printed;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    s_shell = new kctest::RecordedShell;
    s_shell->readsAllowed = false; // the sender reads no command output
    g_deviceMac = kDeviceMac;
    initNimbQueues();
    if (mkdtemp(s_dir) == nullptr)
        abort();
    s_path = std::string(s_dir) + "/events";
    atexit(removeDir);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string file(reinterpret_cast<const char *>(data), size);
    FILE *out = fopen(s_path.c_str(), "w");
    if (out == nullptr || fwrite(file.data(), 1, file.size(), out) != file.size())
        abort();
    fclose(out);

    cJSON *want = cJSON_CreateObject();
    cJSON_AddStringToObject(want, "jsonrpc", "2.0");
    cJSON_AddStringToObject(want, "method", "dsEventNotifications");
    cJSON *params = cJSON_AddObjectToObject(want, "params");
    cJSON_AddStringToObject(params, "deviceId", kDeviceMac);
    cJSON_AddNumberToObject(params, "version", 0);
    cJSON *events = cJSON_AddArrayToObject(params, "events");
    for (const std::string &line : readerLines(file)) {
        EventRecord rec;
        if (!parse_event_line(line.c_str(), &rec))
            continue;
        cJSON *event = cJSON_CreateObject();
        cJSON_AddNumberToObject(event, "number", rec.number);
        cJSON_AddStringToObject(event, "dateTime", rec.dateTime);
        cJSON_AddStringToObject(event, "type", rec.type);
        cJSON_AddStringToObject(event, "event", rec.event);
        cJSON_AddItemToArray(events, event);
    }
    bool any = cJSON_GetArraySize(events) > 0;

    s_shell->clearRecord();
    sendEventLogFrom(s_path.c_str());

    for (int q = 0; q < SEND_QUEUE_COUNT; q++) {
        if (q != SEND_QUEUE_EVENT && filled(g_sendQueues[q]) != 0)
            abort();
    }
    if (!any) {
        if (filled(g_sendQueues[SEND_QUEUE_EVENT]) != 0 || !s_shell->commands.empty())
            abort();
        cJSON_Delete(want);
        return 0;
    }
    if (filled(g_sendQueues[SEND_QUEUE_EVENT]) != 1)
        abort();
    cJSON *tree = nullptr;
    consumeObject(&g_sendQueues[SEND_QUEUE_EVENT], &tree);
    if (printed(tree) != printed(want))
        abort();
    if (s_shell->commands.size() != 1 || s_shell->commands[0] != "echo \"\" > /tmp/cEvtLog")
        abort();
    cJSON_Delete(tree);
    cJSON_Delete(want);
    return 0;
}
