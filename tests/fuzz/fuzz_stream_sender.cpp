/*
 * Fuzzes the system-log stream sender's reading loop
 * (sendStreamSysLogFrom, the body of sendStreamSysLog) over a capture
 * file of its own.  No command runs: a recorded shell answers the "date"
 * commands from a fixed text and records the capture's restart.
 *
 * Input: byte 0 is the "level"; byte 1 chooses how many times the rest is
 * repeated to make the capture (1 + byte 1 modulo 64, so that captures
 * beyond 64 KiB come up) and, with its top bit, an empty answer of
 * "date"; the rest is the capture's text.
 *
 * The sender is called as the timer calls it while it leaves lines behind,
 * until a call sends nothing or restarts the capture.
 *
 * Oracle (the capture is cut into lines here as a line reader of 1,024
 * bytes reads it: at each newline, or after 1,023 bytes):
 *   - the logs of all results, in order, are exactly the capture's lines
 *     that parse (parse_log_line) and are not the agent's own, one each:
 *     dateTime the "date" answer with ":" before its last two characters,
 *     the level, location " ", the message; a line is own when the word
 *     before its first ": " from position 14 (not reaching back before
 *     position 14) is "korvat-cloud" or "korvat-cloud[digits]";
 *   - each result is {"jsonrpc":"2.0","id":<the stream id>,"stream":true,
 *     "result":{"deviceId":<the MAC address>,"logs":[...]}} with 1 to
 *     STREAM_LINES_PER_TICK logs and a printed text (unformatted) shorter
 *     than STREAM_MESSAGE_LIMIT bytes; a result followed by more is full:
 *     it has STREAM_LINES_PER_TICK logs, or the next log would have made
 *     its text STREAM_MESSAGE_LIMIT bytes or more;
 *   - the capture is restarted only by the last call: when that call sent
 *     logs (unless it stopped at STREAM_LINES_PER_TICK logs, when the next
 *     call finishes the capture), and never when the capture held neither
 *     a log nor an own line;
 *   - nothing goes to the other queues.
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
const char kStreamId[] = "stream-7";
const char kDate[] = "2026-11-25T10:00:00+0100";

char s_dir[] = "/tmp/kc-fuzz-stream-XXXXXX";
std::string s_path;
std::string s_date;
kctest::RecordedShell *s_shell = nullptr;

void removeDir(void)
{
    unlink(s_path.c_str());
    rmdir(s_dir);
}

bool dateAnswer(const std::string &cmd, std::string *output)
{
    if (cmd.compare(0, 8, "date -d ") != 0)
        abort(); // the sender reads only the date
    *output = s_date;
    return true;
}

using kcfuzz::filled;
using kcfuzz::readerLines;
using kcfuzz::printed;

bool isOwn(const std::string &line)
{
    size_t colon = line.size() >= 15 ? line.find(": ", 14) : std::string::npos;
    if (colon == std::string::npos)
        return false;
    size_t start = line.rfind(' ', colon - 1);
    start = start == std::string::npos || start < 14 ? 14 : start + 1;
    if (start > colon)
        return false;
    std::string tag = line.substr(start, colon - start);
    const std::string own = "korvat-cloud";
    if (tag == own)
        return true;
    if (tag.compare(0, own.size(), own) != 0 || tag.size() < own.size() + 3 ||
        tag[own.size()] != '[' || tag.back() != ']')
        return false;
    for (size_t i = own.size() + 1; i + 1 < tag.size(); i++) {
        if (tag[i] < '0' || tag[i] > '9')
            return false;
    }
    return true;
}

std::string withColon(const std::string &text)
{
    size_t at = text.size() >= 2 ? text.size() - 2 : 0;
    return text.substr(0, at) + ":" + text.substr(at);
}

cJSON *logObject(const std::string &message, int level)
{
    cJSON *log = cJSON_CreateObject();
    cJSON_AddStringToObject(log, "dateTime", withColon(s_date).c_str());
    cJSON_AddNumberToObject(log, "level", level);
    cJSON_AddStringToObject(log, "location", " ");
    cJSON_AddStringToObject(log, "message", message.c_str());
    return log;
}

cJSON *resultOf(const std::vector<std::string> &messages, size_t from, size_t count, int level)
{
    cJSON *root = cJSON_CreateObject();
    cJSON_AddStringToObject(root, "jsonrpc", "2.0");
    cJSON_AddStringToObject(root, "id", kStreamId);
    cJSON_AddTrueToObject(root, "stream");
    cJSON *result = cJSON_AddObjectToObject(root, "result");
    cJSON_AddStringToObject(result, "deviceId", kDeviceMac);
    cJSON *logs = cJSON_AddArrayToObject(result, "logs");
    for (size_t i = from; i < from + count; i++)
        cJSON_AddItemToArray(logs, logObject(messages[i], level));
    return root;
}

bool restarted(const std::vector<std::string> &commands)
{
    for (const std::string &cmd : commands) {
        if (cmd == "rm /tmp/cloud_log_file")
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    s_shell = new kctest::RecordedShell;
    s_shell->answer = dateAnswer;
    g_deviceMac = kDeviceMac;
    initNimbQueues();
    if (mkdtemp(s_dir) == nullptr)
        abort();
    s_path = std::string(s_dir) + "/capture";
    atexit(removeDir);
    setLogStreaming(1);
    setLogStreamId(kStreamId);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    int level = data[0];
    int repeat = 1 + (data[1] & 63);
    s_date = (data[1] & 0x80) != 0 ? "" : kDate;
    std::string unit(reinterpret_cast<const char *>(data) + 2, size - 2);
    std::string capture;
    for (int i = 0; i < repeat; i++)
        capture += unit;
    FILE *out = fopen(s_path.c_str(), "w");
    if (out == nullptr || fwrite(capture.data(), 1, capture.size(), out) != capture.size())
        abort();
    fclose(out);

    // the model: the logs the capture holds
    std::vector<std::string> messages;
    bool anyOwn = false;
    for (const std::string &line : readerLines(capture)) {
        std::string text = line.c_str(); // read as a C text
        LogLine parsed;
        if (isOwn(text))
            anyOwn = true;
        else if (parse_log_line(text.c_str(), &parsed))
            messages.push_back(parsed.message);
    }

    size_t taken = 0;
    int calls = 0;
    bool restartSeen = false;
    for (;;) {
        if (++calls > (int)messages.size() + 2)
            abort(); // the sender never finishes the capture
        s_shell->clearRecord();
        sendStreamSysLogFrom(s_path.c_str(), level);
        for (int q = 0; q < SEND_QUEUE_COUNT; q++) {
            if (q != SEND_QUEUE_REPLY && filled(g_sendQueues[q]) != 0)
                abort();
        }
        int sent = filled(g_sendQueues[SEND_QUEUE_REPLY]);
        if (sent > 1)
            abort();
        bool restart = restarted(s_shell->commands);
        if (restartSeen)
            abort(); // a call after the restart
        restartSeen = restart;
        if (sent == 0) {
            if (!restart && taken < messages.size())
                abort(); // logs left behind
            break;
        }
        cJSON *tree = nullptr;
        consumeObject(&g_sendQueues[SEND_QUEUE_REPLY], &tree);
        const cJSON *logs =
            cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItemCaseSensitive(tree, "result"), "logs");
        int count = cJSON_GetArraySize(logs);
        if (count < 1 || count > STREAM_LINES_PER_TICK || taken + count > messages.size())
            abort();
        std::string text = printed(tree);
        if (text.size() >= STREAM_MESSAGE_LIMIT)
            abort(); // the batch is too large
        cJSON *want = resultOf(messages, taken, (size_t)count, level);
        if (printed(want) != text)
            abort(); // not the next lines of the capture, or not as sent
        taken += (size_t)count;
        if (taken < messages.size()) {
            // more to come: this one had no room for the next line
            if (restart)
                abort();
            if (count < STREAM_LINES_PER_TICK) {
                cJSON *logsWanted = cJSON_GetObjectItemCaseSensitive(
                    cJSON_GetObjectItemCaseSensitive(want, "result"), "logs");
                cJSON_AddItemToArray(logsWanted, logObject(messages[taken], level));
                if (printed(want).size() < STREAM_MESSAGE_LIMIT)
                    abort(); // cut though the next line fitted
            }
        } else if (!restart && count < STREAM_LINES_PER_TICK) {
            abort(); // the last result restarts the capture (one cut after
                     // its hundredth line leaves that to the next call)
        }
        cJSON_Delete(want);
        cJSON_Delete(tree);
        if (restart)
            break;
    }
    if (taken != messages.size())
        abort();
    if (restartSeen && messages.empty() && !anyOwn)
        abort(); // nothing to stream, yet restarted
    return 0;
}
