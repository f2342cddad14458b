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
 * No command ever runs: the shell backend is a recorded shell
 * (recorded_shell.h) that records each command and answers it from
 * memory, and system() commands only return 0.  As a second guard PATH points to an empty
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
 * Oracle, for every request that parses:
 *   - it is answered exactly once on the reply queue (a well-formed
 *     "dxStreamSystemLogs" with a "deviceId" answers nothing: its results
 *     come later from the timer; "vekAddNetwork" refuses each of
 *     "deviceId", "interface", "ssid", "security" that is missing with an
 *     error reply of its own, -32602 with "Invalid device id.", "Invalid
 *     interface.", "Invalid ssid.", "Invalid security." in that order);
 *   - every reply has "jsonrpc":"2.0" and echoes the request's "id": the
 *     same string, or null when the request had no string "id";
 *   - every reply has exactly one of "result" and "error", except the
 *     queries that pass a utility-script answer on ("vekGetClientStatus",
 *     "vekGetRadioConfig", "vekGetNetworkConfig", "vekGetClientList",
 *     "vekGetGuestNetworkConfig"): when the script printed nothing their
 *     reply has neither, and only then;
 *   - an "error" has an integer "code", the table's "message" for it and a
 *     string "data";
 *   - a "result" is an object whose "deviceId" is the agent's own (the
 *     command line's MAC address), except for the queries that pass the
 *     script's answer on ("vekGetNetworkStatus" and the five above): there
 *     it is the answer's "deviceId" string, and absent when the answer has
 *     none;
 *   - remote access: an enable or disable with all its parameters reaches
 *     the gateway once (stubbed, see below), and the enable answers with
 *     the gateway's address and port as text, or 10100 / 10101 when the
 *     gateway is missing or refuses; a bad "protocol" gives 10102 and a
 *     missing parameter -32602, both without touching the gateway;
 *   - every tree prints; every stream a handler opened was closed.
 *
 * The UPnP gateway is stubbed (setUpnpGateway): port forwarding never
 * discovers anything, so no SSDP leaves the host.  The input's length
 * chooses what the gateway does (length modulo 3: maps the port, has no
 * gateway, refuses) and which radios the device has ((length / 3) modulo
 * 4: bit 0 the 2.4 GHz radio, bit 1 the 5 GHz one).
 *
 * "dxResetDevice" is left out: it saves the queues into the backup files
 * of /etc itself (not through the shell) before rebooting, and this target
 * runs on the host.  The end-to-end suite runs it in the simulated device.  A handler that sleeps
 * or waits on something the target does not provide shows as a time-out
 * (libFuzzer's -timeout, the replay's KC_FUZZ_REPLAY_TIMEOUT).
 */
#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "sdk/sdk_private.h"
#include "client/handlers.h"
#include "json/accessors.h"
#include "linux/sem.h"
#include "recorded_shell.h"
#include "sdk/nimb_sdk.h"
#include "upnp/upnp_helper.h"
#include "util/radios.h"

namespace {

char s_emptyDir[] = "/tmp/kc-fuzz-path-XXXXXX";

void removeEmptyDir(void)
{
    rmdir(s_emptyDir);
}

const char kDeviceMac[] = "02:4b:43:46:55:5a";

/* ---- the device: commands recorded, output from the input ---- */

const char kDefaultOutput[] = "1.2.3\n";

std::vector<std::string> s_outputs; // device texts of the current input
bool s_showCommands = false;
/* The commands of the current input, with what each printed; handlers may
 * run commands from several threads (its mutex). */
kctest::RecordedShell *s_shell = nullptr;

/* The n-th command (reads and runs counted, from 0) reads text n. */
bool cannedAnswer(const std::string &, std::string *output)
{
    size_t n = s_shell->ran.size(); // this one is not in ran yet
    *output = s_outputs.empty() ? std::string(kDefaultOutput) : s_outputs[n % s_outputs.size()];
    return true;
}

/* ---- the UPnP gateway: nothing is sent ---- */

const char kGatewayAddress[] = "203.0.113.7";
const int kGatewayPort = 54321;
int s_gatewayMode = 0; // 0 maps, 1 no gateway, 2 refuses
int s_gatewayAdds = 0;
int s_gatewayRemoves = 0;

int stubAdd(int, int, char externalIp[16], int *externalPort)
{
    s_gatewayAdds++;
    if (s_gatewayMode == 1)
        return -1;
    if (s_gatewayMode == 2)
        return -2;
    snprintf(externalIp, 16, "%s", kGatewayAddress);
    *externalPort = kGatewayPort;
    return 0;
}

int stubRemove(int)
{
    s_gatewayRemoves++;
    return 0;
}

const UpnpGateway kStubGateway = {stubAdd, stubRemove};

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

/* ---- the send queues ---- */

std::mutex s_drainLock;          // held while trees are taken from the queues
std::vector<cJSON *> s_replies;  // replies taken for the current input

int filled(JsonQueue &queue)
{
    int value = 0;
    sem_getvalue(&queue.filledSlots, &value);
    return value;
}

/* Takes every tree waiting in the send queues; s_drainLock is held, and
 * nobody else consumes, so consumeObject never waits.  Replies are kept
 * for the oracle. */
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
            if (i == SEND_QUEUE_REPLY)
                s_replies.push_back(cJSON_Duplicate(tree, 1));
            // As the sending thread does once the tree has left the device.
            pendingAckReplySent(tree);
            cJSON_Delete(tree);
        }
    }
}

std::atomic<unsigned> s_drainRounds{0}; // rounds the drainer has made

void *drainer(void *)
{
    for (;;) {
        {
            std::lock_guard<std::mutex> hold(s_drainLock);
            drainQueues();
        }
        s_drainRounds++;
        usleep(1000);
    }
    return nullptr;
}

} // namespace

/*
 * A handler that waits for its reply to leave ("dxSetNetworkSettings")
 * polls once a second.  Here a second is over as soon as the drainer has
 * made two full rounds (so whatever was queued before the call has been
 * taken), or after the real second at the latest: the wait's outcome is
 * the one a sending thread would give, without a second per input.
 */
extern "C" unsigned int sleep(unsigned int seconds)
{
    unsigned start = s_drainRounds;
    for (unsigned waited = 0; waited < 1000 * seconds; waited++) {
        if (s_drainRounds - start >= 2)
            return 0;
        usleep(1000);
    }
    return 0;
}

namespace {

/* ---- the oracle ---- */

/* The message of each error code (the fixed table of the protocol). */
const char *errorMessage(int code)
{
    switch (code) {
    case -32700: return "Invalid JSON was received";
    case -32600: return "The JSON sent is not a valid Request object";
    case -32601: return "The method is not available";
    case -32602: return "Invalid method parameter";
    case -32603: return "Internal JSON-RPC error";
    case 10001: return "Cannot execute request because the device is not in an appropriate state";
    case 10002: return "Too many items in a list";
    case 10100: return "The router is not a UPnP router";
    case 10101: return "The router could not perform the request";
    case 10102: return "The device does not support the protocol requested";
    default: return "Unknown error";
    }
}

/* What the oracle knows of the request before it is dispatched (the
 * dispatcher deletes it). */
struct Expectation {
    bool hasId = false;
    std::string id;
    std::string method;  // "" when the envelope is refused
    cJSON *params = nullptr; // a copy, or NULL
};

/* Member name (case-insensitive, as the accessors match) of object. */
const cJSON *member(const cJSON *object, const char *name)
{
    if (!cJSON_IsObject(object))
        return nullptr;
    for (const cJSON *child = object->child; child != nullptr; child = child->next) {
        if (child->string != nullptr && strcasecmp(child->string, name) == 0)
            return child;
    }
    return nullptr;
}

/* The query sub-command whose answer a method passes on, or NULL. */
const char *passedOnQuery(const std::string &method)
{
    static const char *const kQueries[][2] = {
        {"vekGetNetworkStatus", "vekGetNetworkStatus result"},
        {"vekGetClientStatus", "vekGetClientStatus result"},
        {"vekGetRadioConfig", "vekGetRadioConfig result"},
        {"vekGetNetworkConfig", "vekGetNetworkConfig result"},
        {"vekGetClientList", "vekGetClientList result"},
        {"vekGetGuestNetworkConfig", "vekGetGuestNetworkConfig result"},
    };
    for (const auto &query : kQueries) {
        if (method == query[0])
            return query[1];
    }
    return nullptr;
}

/* The output the query printed, found among the commands run; false when
 * it did not run. */
bool queryOutput(const char *query, std::string *output)
{
    return s_shell->outputOf(query, output);
}

void checkError(const cJSON *error)
{
    const cJSON *code = cJSON_GetObjectItemCaseSensitive(error, "code");
    const cJSON *message = cJSON_GetObjectItemCaseSensitive(error, "message");
    const cJSON *data = cJSON_GetObjectItemCaseSensitive(error, "data");
    if (!cJSON_IsObject(error) || !cJSON_IsNumber(code) || !cJSON_IsString(message) ||
        !cJSON_IsString(data))
        abort();
    if (code->valuedouble != (double)code->valueint)
        abort();
    if (strcmp(message->valuestring, errorMessage(code->valueint)) != 0)
        abort();
}

int errorCode(const cJSON *reply)
{
    const cJSON *error = cJSON_GetObjectItemCaseSensitive(reply, "error");
    return error != nullptr ? cJSON_GetObjectItemCaseSensitive(error, "code")->valueint : 0;
}

void checkReply(const cJSON *reply, const Expectation &want)
{
    const cJSON *version = cJSON_GetObjectItemCaseSensitive(reply, "jsonrpc");
    if (!cJSON_IsString(version) || strcmp(version->valuestring, "2.0") != 0)
        abort();
    const cJSON *id = cJSON_GetObjectItemCaseSensitive(reply, "id");
    if (want.hasId) {
        if (!cJSON_IsString(id) || want.id != id->valuestring)
            abort(); // the request's "id", echoed
    } else if (!cJSON_IsNull(id)) {
        abort();
    }
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(reply, "result");
    const cJSON *error = cJSON_GetObjectItemCaseSensitive(reply, "error");
    if (result != nullptr && error != nullptr)
        abort();
    if (error != nullptr)
        checkError(error);

    const char *query = passedOnQuery(want.method);
    std::string answer;
    bool answered = query != nullptr && queryOutput(query, &answer);
    bool mayLackResult = query != nullptr && want.method != "vekGetNetworkStatus";
    if (result == nullptr && error == nullptr) {
        // only a passed-on query whose script printed nothing
        if (!mayLackResult || !answered || !answer.empty())
            abort();
        return;
    }
    if (mayLackResult && answered && answer.empty() && error == nullptr)
        abort(); // nothing printed, yet a result
    if (result == nullptr)
        return;
    if (!cJSON_IsObject(result))
        abort();
    const cJSON *deviceId = cJSON_GetObjectItemCaseSensitive(result, "deviceId");
    if (query == nullptr) {
        if (!cJSON_IsString(deviceId) || strcmp(deviceId->valuestring, kDeviceMac) != 0)
            abort(); // the agent's own device id
        return;
    }
    if (!answered || answer.size() > 16000)
        return; // (the answer would be cut)
    cJSON *parsed = cJSON_Parse(answer.c_str());
    const cJSON *theirs = member(parsed, "deviceId");
    if (theirs == nullptr) {
        if (deviceId != nullptr)
            abort(); // the answer had none
    } else if (cJSON_IsString(theirs)) {
        if (!cJSON_IsString(deviceId) || strcmp(deviceId->valuestring, theirs->valuestring) != 0)
            abort(); // the answer's, passed on
    }
    cJSON_Delete(parsed);
}

/* Remote access: the gateway is used exactly when the parameters allow,
 * and the reply says what it did. */
void checkRemoteAccess(const Expectation &want, const cJSON *reply)
{
    const cJSON *params = want.params;
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(reply, "result");
    if (want.method == "dxEnableRemoteWebUiAccess") {
        const cJSON *protocol = member(params, "protocol");
        if (member(params, "deviceId") == nullptr) {
            if (errorCode(reply) != -32602 || s_gatewayAdds != 0)
                abort();
            return;
        }
        if (protocol != nullptr &&
            !(cJSON_IsString(protocol) && strcmp(protocol->valuestring, "http") == 0)) {
            if (errorCode(reply) != 10102 || s_gatewayAdds != 0)
                abort();
            return;
        }
        if (s_gatewayAdds != 1)
            abort();
        if (s_gatewayMode == 1 && errorCode(reply) != 10100)
            abort();
        if (s_gatewayMode == 2 && errorCode(reply) != 10101)
            abort();
        if (s_gatewayMode == 0) {
            char port[16];
            snprintf(port, sizeof port, "%d", kGatewayPort);
            const cJSON *proto = cJSON_GetObjectItemCaseSensitive(result, "protocol");
            const cJSON *address = cJSON_GetObjectItemCaseSensitive(result, "ipAddress");
            const cJSON *text = cJSON_GetObjectItemCaseSensitive(result, "port");
            if (!cJSON_IsString(proto) || strcmp(proto->valuestring, "http") != 0 ||
                !cJSON_IsString(address) || strcmp(address->valuestring, kGatewayAddress) != 0 ||
                !cJSON_IsString(text) || strcmp(text->valuestring, port) != 0)
                abort();
        }
    } else if (want.method == "dxDisableRemoteWebUiAccess") {
        bool complete = member(params, "deviceId") != nullptr &&
                        cJSON_IsString(member(params, "ipAddress")) &&
                        cJSON_IsString(member(params, "port"));
        if (complete ? (result == nullptr || s_gatewayRemoves != 1)
                     : (errorCode(reply) != -32602 || s_gatewayRemoves != 0))
            abort();
    }
}

/* "vekAddNetwork" refuses each missing member with an error reply of its
 * own, in this order; none when all are there. */
std::vector<std::string> addNetworkRefusals(const Expectation &want)
{
    std::vector<std::string> refusals;
    if (want.method != "vekAddNetwork")
        return refusals;
    if (member(want.params, "deviceId") == nullptr)
        refusals.push_back("Invalid device id.");
    if (!cJSON_IsString(member(want.params, "interface")))
        refusals.push_back("Invalid interface.");
    if (!cJSON_IsString(member(want.params, "ssid")))
        refusals.push_back("Invalid ssid.");
    if (!cJSON_IsString(member(want.params, "security")))
        refusals.push_back("Invalid security.");
    return refusals;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    s_shell = new kctest::RecordedShell;
    s_shell->answer = cannedAnswer;
    setUpnpGateway(&kStubGateway);
    g_deviceMac = kDeviceMac;
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
    Expectation want;
    const char *id = jsonGetString(request, "id");
    want.hasId = id != nullptr;
    want.id = id != nullptr ? id : "";
    want.method = method != nullptr ? method : "";
    if (method != nullptr)
        want.params = cJSON_Duplicate(jsonGetItem(request, "params"), 1);
    int expected = want.method == "dxStreamSystemLogs" && member(want.params, "deviceId") != nullptr
                       ? 0
                       : 1;
    std::vector<std::string> refusals = addNetworkRefusals(want);
    if (!refusals.empty())
        expected = (int)refusals.size();

    {
        std::lock_guard<std::mutex> hold(s_shell->mutex);
        s_outputs.clear();
        s_shell->clearRecord();
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
    s_gatewayMode = (int)(size % 3);
    s_gatewayAdds = 0;
    s_gatewayRemoves = 0;
    g_support2G = (size / 3) % 4 & 1;
    g_support5G = ((size / 3) % 4 & 2) != 0;

    genericCommandHandler(request);

    std::lock_guard<std::mutex> hold(s_drainLock);
    drainQueues();
    std::lock_guard<std::mutex> device(s_shell->mutex);
    if (s_showCommands)
        for (const std::string &cmd : s_shell->commands)
            fprintf(stderr, "command: %s\n", cmd.c_str());
    if ((int)s_replies.size() != expected)
        abort(); // every request that parses is answered exactly once
    for (size_t i = 0; i < s_replies.size(); i++) {
        cJSON *reply = s_replies[i];
        checkReply(reply, want);
        checkRemoteAccess(want, reply);
        if (!refusals.empty()) {
            const cJSON *error = cJSON_GetObjectItemCaseSensitive(reply, "error");
            const cJSON *data = cJSON_GetObjectItemCaseSensitive(error, "data");
            if (errorCode(reply) != -32602 || !cJSON_IsString(data) ||
                refusals[i] != data->valuestring)
                abort(); // one refusal per missing member, in order
        }
        cJSON_Delete(reply);
    }
    s_replies.clear();
    cJSON_Delete(want.params);
    if (s_shell->opened != s_shell->closed)
        abort(); // a handler left a command's stream open
    return 0;
}
