/*
 * Messages the agent originates from device-side files: event
 * notifications from "/tmp/cEvtLog" ("dsEventNotifications", event queue)
 * and streamed system-log lines from the capture "/tmp/cloud_log_file"
 * (results of the "dxStreamSystemLogs" request, reply queue).  Both are
 * sent by the maintenance timer's checks (see timer.h).  The envelope of
 * every notification (these and the periodic status updates) is made here.
 *
 * Ownership: the records the parsers fill are plain values of the caller;
 * the stream id logStreamId() returns is a new heap text the caller
 * releases with free_text() (util/text.h).
 */
#ifndef KC_CLIENT_EVENTS_H
#define KC_CLIENT_EVENTS_H

#include <stddef.h>

struct cJSON;

/* ---- notifications ---- */

/* The envelope of a notification the agent originates: {"jsonrpc",
 * "method", "params":{"deviceId" (the device MAC), "version":0}} with
 * *params set to the "params" object, for the caller to fill.  The caller
 * queues the tree (or deletes it). */
cJSON *notificationEnvelope(const char *method, cJSON **params);

/* The senders read their files a line at a time into this many bytes
 * (newline and terminating zero included): a longer line is read as
 * several.  The text fields below hold any part of such a line. */
#define EVENT_LINE_SIZE 1024

/* ---- the event file ---- */

struct EventRecord {
    int number;
    char dateTime[EVENT_LINE_SIZE + 1]; /* the zone written "+08:00" */
    char type[EVENT_LINE_SIZE];
    char event[EVENT_LINE_SIZE]; /* the line's text after the label, last character dropped */
};

/* 1 and rec filled when line holds "number:", " dateTime:", " type:" and
 * " event:" in this order; 0 (rec untouched) otherwise.  A field longer
 * than its buffer (a line longer than the senders read) is cut to fit. */
int parse_event_line(const char *line, EventRecord *rec);

/* Sends the events of "/tmp/cEvtLog" as one notification (blocking on the
 * event queue), then empties the file.  Nothing when the file is missing
 * or holds no event. */
void sendEventLog(void);
/* The same over the event file at path (tests and fuzz targets); the file
 * is still emptied with the command for "/tmp/cEvtLog". */
void sendEventLogFrom(const char *path);

/* ---- the system-log capture ---- */

struct LogLine {
    int month;                      /* 1 to 12 */
    char day[3];                    /* the two characters at positions 4 and 5 */
    char time[9];                   /* the eight characters from position 7 */
    char message[EVENT_LINE_SIZE];  /* after the first ": " from position 14;
                                       every newline a blank, every double
                                       quote a single quote */
};

/* 1 and out filled for a capture line with a known month and a message;
 * 0 otherwise (a line without a month name is reported in debug output).
 * A message longer than its buffer (a line longer than the senders read)
 * is cut to fit. */
int parse_log_line(const char *line, LogLine *out);

/* 1 for a capture line logged from the agent's own standard output (the
 * tag before the message is "korvat-cloud" or "korvat-cloud[PID]"): the
 * stream leaves such lines out, or every dump of a streamed result would
 * be streamed again. */
int log_line_is_own(const char *line);

/* "+0100" as "+01:00": the length characters of text with ":" before the
 * last two, written to out (size bytes, size > 0): cut to fit and always
 * terminated.  size = length + 2 holds the whole result. */
void with_zone_colon(const char *text, size_t length, char *out, size_t size);

/* A streamed result takes at most this many capture lines, and its text
 * stays below this many bytes (64 KiB); the lines beyond go in the next
 * result, at the next tick. */
#define STREAM_LINES_PER_TICK 100
#define STREAM_MESSAGE_LIMIT 65536

/* Sends the captured lines as one streamed result of the stored request
 * (blocking on the reply queue) and restarts the capture once it has been
 * read to its end.  level is the "level" of every log object; the other
 * arguments are not used. */
void sendStreamSysLog(int ignored1, int level, int ignored2, int ignored3);
/* The same over the capture at path (tests and fuzz targets); the restart
 * still runs the commands for the real capture. */
void sendStreamSysLogFrom(const char *path, int level);

/* ---- streaming state, set by "dxStreamSystemLogs" ---- */

void setLogStreaming(int on);
int logStreaming(void);
/* The "id" text of the request that started streaming ("" for none).
 * logStreamId() returns a copy (NULL when memory ran out), released with
 * free_text(). */
void setLogStreamId(const char *id);
char *logStreamId(void);

#endif
