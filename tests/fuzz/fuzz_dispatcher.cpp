/*
 * Fuzzes the dispatcher and the handlers behind it.
 *
 * Input: the request text up to the first NUL byte; whatever follows is
 * the device's output, as texts separated by NUL bytes: the n-th command a
 * handler runs through run_shell_command reads text n (taken in turn when
 * there are fewer texts than commands); without any, every command reads
 * "1.2.3\n".  When the request parses it is dispatched, and every reply and
 * message the handler queued is taken and printed.
 *
 * No command ever runs: the shell backend is replaced (setShellBackend) by
 * one that records each command and answers it from memory, and system()
 * commands only return 0.  As a second guard PATH points to an empty
 * directory.  A handler must send device commands through the shell
 * runner or run_system_command, never popen or system directly.
 *
 * Replies: a background thread keeps the three send queues drained while
 * the handler runs (a queue holds 10 trees, and a handler that queued more
 * would wait for room), and empties the pending acknowledgement slot when its reply is
 * taken (pendingAckReplySent, the hook the sending thread runs once a tree
 * has left the device), so that a handler waiting for that goes on.  After the handler returns the
 * rest is drained here.
 *
 * With KC_FUZZ_SHOW_COMMANDS set in the environment, the commands each
 * input ran are listed on standard error (useful with the replay driver).
 *
 * Oracle: every request that parses is answered exactly once on the reply
 * queue, with "jsonrpc":"2.0" and a "result" or an "error", never both
 * (neither when a query's device script printed nothing; and a
 * well-formed "dxStreamSystemLogs" with "deviceId" answers nothing: its
 * results come later from the timer); every tree prints; every stream
 * a handler opened was closed.
 *
 * "dxResetDevice" is left out: it saves the queues into the backup files
 * of /etc itself (not through the shell) before rebooting, and this target
 * runs on the host.  The end-to-end suite runs it in the simulated device.  A handler that sleeps
 * or waits on something the target does not provide shows as a time-out
 * (libFuzzer's -timeout, the replay's KC_FUZZ_REPLAY_TIMEOUT).
 */
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "client/handlers.h"
#include "json/json_parser.h"
#include "linux/sem.h"
#include "sdk/nimb_sdk.h"
#include "util/kapri_util.h"

namespace {

char s_emptyDir[] = "/tmp/kc-fuzz-path-XXXXXX";

void removeEmptyDir(void)
{
    rmdir(s_emptyDir);
}

/* ---- the device: commands recorded, output from the input ---- */

const char kDefaultOutput[] = "1.2.3\n";

std::vector<std::string> s_outputs; // device texts of the current input
std::vector<std::string> s_commands; // commands run for the current input
int s_opened = 0;
int s_closed = 0;
bool s_showCommands = false;
std::mutex s_deviceLock; // handlers may run commands from several threads

FILE *cannedOpen(const char *cmd, const char *mode)
{
    std::lock_guard<std::mutex> hold(s_deviceLock);
    if (cmd == nullptr || strcmp(mode, "r") != 0)
        abort(); // the runner only ever reads
    const std::string &text =
        s_outputs.empty() ? std::string(kDefaultOutput) : s_outputs[s_commands.size() % s_outputs.size()];
    s_commands.push_back(cmd);
    FILE *stream = fmemopen(nullptr, text.size() + 1, "w+");
    if (stream == nullptr)
        abort();
    if (fwrite(text.data(), 1, text.size(), stream) != text.size())
        abort();
    rewind(stream);
    s_opened++;
    return stream;
}

int cannedClose(FILE *stream)
{
    std::lock_guard<std::mutex> hold(s_deviceLock);
    s_closed++;
    fclose(stream);
    return 0;
}

int cannedRun(const char *cmd)
{
    std::lock_guard<std::mutex> hold(s_deviceLock);
    if (cmd == nullptr)
        abort();
    s_commands.push_back(cmd);
    return 0;
}

const ShellBackend kCannedDevice = {cannedOpen, cannedClose, cannedRun};

/* The method of a request that gets past the envelope checks (as the
 * dispatcher makes them), or NULL. */
const char *dispatchedMethod(const cJSON *request)
{
    const char *version = jsonGetString(request, "jsonrpc");
    const char *method = jsonGetString(request, "method");
    if (version == nullptr || method == nullptr || jsonGetString(request, "id") == nullptr ||
        jsonGetItem(request, "params") == nullptr || strcmp(version, "2.0") != 0)
        return nullptr;
    return method;
}

/* Replies the request must have: none for a stream switch with a device
 * id, one for everything else. */
int expectedReplies(const cJSON *request)
{
    const char *method = dispatchedMethod(request);
    if (method != nullptr && strcmp(method, "dxStreamSystemLogs") == 0 &&
        jsonGetItem(jsonGetItem(request, "params"), "deviceId") != nullptr)
        return 0;
    return 1;
}

/* ---- the send queues ---- */

std::mutex s_drainLock; // held while trees are taken from the queues
int s_replies = 0;      // replies taken for the current input

int filled(JsonQueue &queue)
{
    int value = 0;
    sem_getvalue(&queue.filledSlots, &value);
    return value;
}

void checkReply(const cJSON *reply)
{
    const char *version = jsonGetString(reply, "jsonrpc");
    if (version == nullptr || strcmp(version, "2.0") != 0)
        abort();
    /* never both; neither is the answer of a query whose device script
     * printed nothing (the reply then goes out without "result") */
    if (jsonGetItem(reply, "result") != nullptr && jsonGetItem(reply, "error") != nullptr)
        abort();
}

/* Takes every tree waiting in the send queues; s_drainLock is held, and
 * nobody else consumes, so consumeObject never waits. */
void drainQueues(void)
{
    for (int i = 0; i < SEND_QUEUE_COUNT; i++) {
        JsonQueue &queue = g_sendQueues[i];
        while (filled(queue) > 0) {
            cJSON *tree = nullptr;
            consumeObject(&queue, &tree);
            char *printed = cJSON_PrintUnformatted(tree);
            if (printed == nullptr)
                abort();
            cJSON_free(printed);
            if (i == SEND_QUEUE_REPLY) {
                checkReply(tree);
                s_replies++;
            }
            // As the sending thread does once the tree has left the device.
            pendingAckReplySent(tree);
            cJSON_Delete(tree);
        }
    }
}

void *drainer(void *)
{
    for (;;) {
        {
            std::lock_guard<std::mutex> hold(s_drainLock);
            drainQueues();
        }
        usleep(1000);
    }
    return nullptr;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    setShellBackend(&kCannedDevice);
    s_showCommands = getenv("KC_FUZZ_SHOW_COMMANDS") != nullptr;
    initNimbQueues();
    if (mkdtemp(s_emptyDir) == nullptr)
        abort();
    setenv("PATH", s_emptyDir, 1);
    atexit(removeEmptyDir);
    // The dispatcher's console lines would flood the fuzzer's output.
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    pthread_t thread;
    if (pthread_create(&thread, nullptr, drainer, nullptr) != 0)
        abort();
    pthread_detach(thread);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *bytes = reinterpret_cast<const char *>(data);
    const char *end = static_cast<const char *>(memchr(bytes, '\0', size));
    std::string text(bytes, end != nullptr ? (size_t)(end - bytes) : size);
    cJSON *request = cJSON_Parse(text.c_str());
    if (request == nullptr)
        return 0;
    const char *method = dispatchedMethod(request);
    if (method != nullptr && strcmp(method, "dxResetDevice") == 0) {
        cJSON_Delete(request);
        return 0;
    }
    int expected = expectedReplies(request);

    {
        std::lock_guard<std::mutex> hold(s_deviceLock);
        s_outputs.clear();
        s_commands.clear();
        s_opened = 0;
        s_closed = 0;
        if (end != nullptr) {
            const char *p = end + 1;
            const char *stop = bytes + size;
            while (p <= stop) {
                const char *next = static_cast<const char *>(memchr(p, '\0', (size_t)(stop - p)));
                if (next == nullptr)
                    next = stop;
                s_outputs.emplace_back(p, (size_t)(next - p));
                p = next + 1;
            }
        }
    }

    genericCommandHandler(request);

    std::lock_guard<std::mutex> hold(s_drainLock);
    drainQueues();
    if (s_replies != expected)
        abort(); // every request that parses is answered exactly once
    s_replies = 0;
    std::lock_guard<std::mutex> device(s_deviceLock);
    if (s_opened != s_closed)
        abort(); // a handler left a command's stream open
    if (s_showCommands)
        for (const std::string &cmd : s_commands)
            fprintf(stderr, "command: %s\n", cmd.c_str());
    return 0;
}
