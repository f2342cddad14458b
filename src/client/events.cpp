/*
 * Event notifications and system-log streaming.
 *
 * "/tmp/cEvtLog" gets one line a device event from other programs
 * ("number:7 dateTime:2026-11-15T10:00:00+0100 type:INFO event:Reboot");
 * each batch of lines goes to the server as one "dsEventNotifications"
 * and the file is emptied.  While streaming is on, a background
 * "logread -f" fills "/tmp/cloud_log_file"; every five ticks its lines go
 * to the server as one streamed result of the "dxStreamSystemLogs" request
 * and the capture starts afresh.  When the queue a sender would use is
 * nearly full, the device-side data is discarded instead, so the timer
 * never blocks on a queue.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/events.h"

#include <cjson/cJSON.h>
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <atomic>

#include "client/handlers.h"
#include "client/log_capture.h"
#include "client/timer.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/text.h"
#include "util/shell_quote.h"

static const char kEventFile[] = "/tmp/cEvtLog";
static const char kCaptureFile[] = LOG_CAPTURE_FILE;
/* The agent's own name: the tag of the lines that the service manager
 * logs from its standard output ("korvat-cloud[1234]"). */
static const char kOwnTag[] = "korvat-cloud";

/* ---- helpers ---- */

static std::atomic<int> s_streaming{0};
static char *s_streamId = NULL; /* NULL: "" */
static pthread_mutex_t s_streamIdLock = PTHREAD_MUTEX_INITIALIZER;

void setLogStreaming(int on)
{
    s_streaming = on != 0;
}

int logStreaming(void)
{
    return s_streaming;
}

void setLogStreamId(const char *id)
{
    char *copy = strdup(id != NULL ? id : "");
    pthread_mutex_lock(&s_streamIdLock);
    char *old = s_streamId;
    s_streamId = copy;
    pthread_mutex_unlock(&s_streamIdLock);
    free(old);
}

char *logStreamId(void)
{
    pthread_mutex_lock(&s_streamIdLock);
    char *id = strdup(s_streamId != NULL ? s_streamId : "");
    pthread_mutex_unlock(&s_streamIdLock);
    return id;
}

/* Appends the length bytes of text to the used bytes of out (size bytes),
 * as many as fit before the terminating zero. */
static void appendCut(char *out, size_t size, size_t *used, const char *text, size_t length)
{
    size_t room = size - 1 - *used;
    if (length > room)
        length = room;
    memcpy(out + *used, text, length);
    *used += length;
    out[*used] = '\0';
}

/* The length bytes of text as a terminated text in out, cut to fit. */
static void copyCut(char *out, size_t size, const char *text, size_t length)
{
    size_t used = 0;
    appendCut(out, size, &used, text, length);
}

void with_zone_colon(const char *text, size_t length, char *out, size_t size)
{
    size_t at = length >= 2 ? length - 2 : 0;
    size_t used = 0;
    appendCut(out, size, &used, text, at);
    appendCut(out, size, &used, ":", 1);
    appendCut(out, size, &used, text + at, length - at);
}

int parse_event_line(const char *line, EventRecord *rec)
{
    const char *number = strstr(line, "number:");
    const char *dateTime = strstr(line, " dateTime:");
    const char *type = strstr(line, " type:");
    const char *event = strstr(line, " event:");
    if (number == NULL || dateTime == NULL || type == NULL || event == NULL)
        return 0;
    /* the fields lie between the labels, in this order */
    number += strlen("number:");
    if (!(number <= dateTime && dateTime < type && type < event))
        return 0;
    const char *dateStart = dateTime + strlen(" dateTime:");
    const char *typeStart = type + strlen(" type:");
    const char *eventStart = event + strlen(" event:");
    if (dateStart > type || typeStart > event)
        return 0;
    /* atoi stops at the blank of " dateTime:" at the latest, so it reads
     * the number field alone */
    rec->number = atoi(number);
    with_zone_colon(dateStart, (size_t)(type - dateStart), rec->dateTime, sizeof rec->dateTime);
    copyCut(rec->type, sizeof rec->type, typeStart, (size_t)(event - typeStart));
    size_t length = strlen(eventStart);
    /* the last character goes: the newline of a complete line */
    if (length > 0)
        length--;
    copyCut(rec->event, sizeof rec->event, eventStart, length);
    return 1;
}

static const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

int parse_log_line(const char *line, LogLine *out)
{
    int month = 0;
    for (int i = 0; i < 12; i++) {
        if (strncmp(line, kMonths[i], 3) == 0) {
            month = i + 1;
            break;
        }
    }
    if (month == 0) {
        /* the streamer's own debug line, whoever parses for it */
        if (g_debugFlag)
            kcDebugPrint(KC_MODULE, "sendStreamSysLog", 4425, "No matched month!!\n");
        return 0;
    }
    size_t length = strlen(line);
    if (length < 15)
        return 0;
    /* the message starts two characters after the first ": " from
     * position 14; a line without one has no message */
    const char *colon = strstr(line + 14, ": ");
    if (colon == NULL)
        return 0;
    out->month = month;
    copyCut(out->day, sizeof out->day, line + 4, 2);
    copyCut(out->time, sizeof out->time, line + 7, 8);
    copyCut(out->message, sizeof out->message, colon + 2, strlen(colon + 2));
    for (char *c = out->message; *c != '\0'; c++) {
        if (*c == '\n')
            *c = ' ';
        else if (*c == '"')
            *c = '\'';
    }
    return 1;
}

int log_line_is_own(const char *line)
{
    if (line == NULL || strlen(line) < 15)
        return 0;
    const char *colon = strstr(line + 14, ": ");
    if (colon == NULL)
        return 0;
    /* the tag is the word just before that colon */
    const char *tag = colon;
    while (tag > line + 14 && tag[-1] != ' ')
        tag--;
    size_t n = strlen(kOwnTag);
    if ((size_t)(colon - tag) < n || strncmp(tag, kOwnTag, n) != 0)
        return 0;
    const char *rest = tag + n;
    if (rest == colon)
        return 1;
    /* "[pid]" */
    if (*rest++ != '[' || rest == colon || colon[-1] != ']')
        return 0;
    for (const char *p = rest; p < colon - 1; p++) {
        if (*p < '0' || *p > '9')
            return 0;
    }
    return rest < colon - 1;
}

/* The ISO date and time (zone "+HH:MM") of a capture line, from date,
 * into iso (the date command's output is at most 64 bytes: the sizes
 * below hold all of it). */
static void isoTimeOf(const LogLine *line, char *iso, size_t size)
{
    char when[64];
    snprintf(when, sizeof when, "%02d.%s-%s", line->month, line->day, line->time);
    /* when is at most 14 characters: quoted, at most 58 */
    char *word = shell_quote(when);
    char cmd[256];
    snprintf(cmd, sizeof cmd, "date -d %s +'%%Y-%%m-%%dT%%H:%%M:%%S%%z' | tr -d '\\n'", word);
    free_text(word);
    char *out = run_shell_command(cmd, 64);
    with_zone_colon(out, strlen(out), iso, size);
    free_text(out);
}

/* ---- senders ---- */

cJSON *notificationEnvelope(const char *method, cJSON **params)
{
    cJSON *root = initJsonRpcObject();
    jsonAddString(root, "method", method);
    *params = jsonCreateObject();
    jsonAddItem(root, "params", *params);
    jsonAddString(*params, "deviceId", g_deviceMac);
    jsonAddInt(*params, "version", 0);
    return root;
}

void sendEventLog(void)
{
    sendEventLogFrom(kEventFile);
}

void sendEventLogFrom(const char *path)
{
    if (access(path, F_OK) != 0)
        return;
    FILE *in = fopen(path, "re");
    if (in == NULL) {
        printf("Func %s: File %s doesn't exist.\n", path, "sendEventLog");
        return;
    }
    /* the notification is made at the first event, each event added as
     * its line is read */
    cJSON *root = NULL;
    cJSON *events = NULL;
    char line[EVENT_LINE_SIZE];
    EventRecord rec;
    while (fgets(line, sizeof line, in) != NULL) {
        if (!parse_event_line(line, &rec))
            continue;
        if (root == NULL) {
            cJSON *params = NULL;
            root = notificationEnvelope("dsEventNotifications", &params);
            events = jsonCreateArray();
            jsonAddItem(params, "events", events);
        }
        cJSON *event = jsonCreateObject();
        jsonAddInt(event, "number", rec.number);
        jsonAddString(event, "dateTime", rec.dateTime);
        jsonAddString(event, "type", rec.type);
        jsonAddString(event, "event", rec.event);
        jsonAddToArray(events, event);
    }
    fclose(in);
    if (root == NULL)
        return;
    writeJsonEvent(root);
    run_system_command("echo \"\" > /tmp/cEvtLog");
}

/*
 * Where the next streamed result starts reading the capture: 0, or the
 * position after the last line sent when a batch was cut (its lines go on
 * at the next tick, without the wait of five).  Touched by the timer
 * thread only.
 */
static long s_captureOffset = 0;
static int s_backlog = 0;

/* The streamed result's envelope: {"jsonrpc","id","stream":true,
 * "result":{"deviceId","logs":[]}}; *logs set to the array. */
static cJSON *streamResult(const char *id, cJSON **logs)
{
    cJSON *root = initJsonRpcObject();
    jsonAddString(root, "id", id);
    cJSON_AddItemToObject(root, "stream", cJSON_CreateTrue());
    cJSON *result = jsonCreateObject();
    jsonAddItem(root, "result", result);
    jsonAddString(result, "deviceId", g_deviceMac);
    *logs = jsonCreateArray();
    jsonAddItem(result, "logs", *logs);
    return root;
}

static cJSON *logObject(const char *dateTime, int level, const char *message)
{
    cJSON *log = jsonCreateObject();
    jsonAddString(log, "dateTime", dateTime);
    jsonAddInt(log, "level", level);
    jsonAddString(log, "location", " ");
    jsonAddString(log, "message", message);
    return log;
}

static size_t printedSize(const cJSON *tree)
{
    char *text = jsonPrint(tree);
    size_t size = text != NULL ? strlen(text) : 0;
    jsonFreeText(text);
    return size;
}

void sendStreamSysLog(int, int level, int, int)
{
    sendStreamSysLogFrom(kCaptureFile, level);
}

static void streamCapture(const char *path, const char *id, int level);

void sendStreamSysLogFrom(const char *path, int level)
{
    char *id = logStreamId();
    if (s_streaming && id != NULL && id[0] != '\0' && access(path, F_OK) == 0)
        streamCapture(path, id, level);
    free_text(id);
}

/* sendStreamSysLogFrom once the stream is known to be on, with its id. */
static void streamCapture(const char *path, const char *id, int level)
{
    FILE *in = fopen(path, "re");
    if (in == NULL) {
        printf("Func %s: File %s doesn't exist.\n", path, "sendStreamSysLog");
        return;
    }
    /* a capture shorter than the position kept was started afresh */
    if (s_captureOffset > 0 && (fseek(in, 0, SEEK_END) != 0 || ftell(in) < s_captureOffset))
        s_captureOffset = 0;
    fseek(in, s_captureOffset, SEEK_SET);

    cJSON *logs = NULL;
    cJSON *root = streamResult(id, &logs);
    size_t size = printedSize(root);
    int count = 0;
    int ownLines = 0;
    int cut = 0;
    long consumed = s_captureOffset;
    char line[EVENT_LINE_SIZE];
    LogLine parsed;
    char dateTime[80];
    while (fgets(line, sizeof line, in) != NULL) {
        if (count >= STREAM_LINES_PER_TICK) {
            cut = 1;
            break;
        }
        if (log_line_is_own(line)) {
            /* the agent's own output, logged by the service manager:
             * streaming it would feed every dump back into the stream */
            ownLines++;
        } else if (parse_log_line(line, &parsed)) {
            isoTimeOf(&parsed, dateTime, sizeof dateTime);
            cJSON *log = logObject(dateTime, level, parsed.message);
            size_t more = printedSize(log) + (count > 0 ? 1 : 0);
            if (count > 0 && size + more >= STREAM_MESSAGE_LIMIT) {
                jsonDelete(log);
                cut = 1;
                break;
            }
            jsonAddToArray(logs, log);
            size += more;
            count++;
        }
        consumed = ftell(in);
    }
    fclose(in);
    if (cut) {
        s_captureOffset = consumed;
        s_backlog = 1;
    } else {
        s_captureOffset = 0;
        s_backlog = 0;
        /* the capture restarts after every result, and when it held
         * nothing but the agent's own lines */
        if (count > 0 || ownLines > 0)
            restartLogCapture();
    }
    if (count == 0) {
        jsonDelete(root);
        return;
    }
    writeJsonReply(root);
}

/* ---- periodic checks ---- */

void logStreamCheck(int tick)
{
    if (!s_streaming || (tick % 5 != 0 && !s_backlog))
        return;
    if (sendQueueFreeSlots(SEND_QUEUE_REPLY) < 2) {
        /* the captured lines are dropped */
        s_captureOffset = 0;
        s_backlog = 0;
        restartLogCapture();
        return;
    }
    sendStreamSysLog(0, 20, 0, 0);
}

void eventCheck(int eventFreeSlots, int paused)
{
    if (eventFreeSlots < 2) {
        run_system_command("echo \"\" > /tmp/cEvtLog");
        return;
    }
    if (g_applyDone == 1 && paused == 0)
        sendEventLog();
}
