/*
 * Device server on libwebsockets, driven over standard input and output
 * with one JSON object per line (the control protocol of
 * tests/interop/README.md).
 *
 *   lws_server [--host ADDRESS] [--port N] [--tls --cert-dir DIR]
 *
 * One service thread runs the library; a reader thread takes command lines
 * from standard input and wakes the service thread with lws_cancel_service,
 * which then carries them out (LWS_CALLBACK_EVENT_WAIT_CANCELLED).  Frames
 * are written from the connection's writeable callback, as the library
 * requires.
 */
#include <libwebsockets.h>
#include <openssl/ssl.h>
#include <cjson/cJSON.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define SUBPROTOCOL "nimb-protocol"

enum item_kind { ITEM_TEXT, ITEM_PING, ITEM_CLOSE };

/* One frame waiting for the connection to become writeable. */
struct out_item {
    struct out_item *next;
    enum item_kind kind;
    int code;                  /* ITEM_CLOSE */
    size_t len;
    unsigned char buf[];       /* LWS_PRE bytes of room, then the payload */
};

/* Per-connection data (allocated and zeroed by the library). */
struct conn {
    struct conn *next;         /* open connections, newest first */
    struct lws *wsi;
    int index;
    cJSON *headers;            /* [[name, value], ...] from the handshake */
    char *path;
    struct out_item *head, *tail;
    unsigned char *rx;         /* message being received */
    size_t rx_len, rx_cap;
    int close_code;            /* code of the agent's close frame, -1: none seen */
    char close_reason[128];
};

/* Command lines handed from the reader thread to the service thread. */
struct line {
    struct line *next;
    char text[];
};

static struct lws_context *g_context;
static struct conn *g_conns;
static int g_next_index = 1;
static int g_quit;

static pthread_mutex_t g_lines_lock = PTHREAD_MUTEX_INITIALIZER;
static struct line *g_lines_head, *g_lines_tail;
static int g_stdin_closed;
static int g_context_alive;   /* the reader thread may wake the service thread */

/* ----- events ------------------------------------------------------------ */

static void emit(cJSON *event)
{
    char *text = cJSON_PrintUnformatted(event);
    if (text != NULL) {
        fputs(text, stdout);
        fputc('\n', stdout);
        fflush(stdout);
        free(text);
    }
    cJSON_Delete(event);
}

static cJSON *new_event(const char *name, const struct conn *c)
{
    cJSON *event = cJSON_CreateObject();
    cJSON_AddStringToObject(event, "event", name);
    if (c != NULL)
        cJSON_AddNumberToObject(event, "conn", c->index);
    return event;
}

static char *to_hex(const unsigned char *data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    char *out = malloc(2 * len + 1);
    for (size_t i = 0; i < len; i++) {
        out[2 * i] = digits[data[i] >> 4];
        out[2 * i + 1] = digits[data[i] & 15];
    }
    out[2 * len] = '\0';
    return out;
}

static int from_hex(const char *hex, unsigned char *out, size_t cap, size_t *len)
{
    size_t n = strlen(hex);
    if (n % 2 != 0 || n / 2 > cap)
        return -1;
    for (size_t i = 0; i < n / 2; i++) {
        unsigned int byte;
        if (sscanf(hex + 2 * i, "%2x", &byte) != 1)
            return -1;
        out[i] = (unsigned char)byte;
    }
    *len = n / 2;
    return 0;
}

/* ----- connections ------------------------------------------------------- */

static void record_handshake(struct conn *c, struct lws *wsi)
{
    char value[1024];
    c->headers = cJSON_CreateArray();
    for (int tok = 0; tok < WSI_TOKEN_COUNT; tok++) {
        const char *name = (const char *)lws_token_to_string((enum lws_token_indexes)tok);
        if (name == NULL || lws_hdr_total_length(wsi, (enum lws_token_indexes)tok) <= 0)
            continue;
        if (lws_hdr_copy(wsi, value, sizeof value, (enum lws_token_indexes)tok) < 0)
            continue;
        size_t n = strlen(name);
        if (tok == WSI_TOKEN_GET_URI) {
            c->path = strdup(value);
        } else if (n > 1 && name[n - 1] == ':') {  /* header tokens read "host:" */
            char header[64];
            snprintf(header, sizeof header, "%.*s", (int)(n - 1), name);
            cJSON *pair = cJSON_CreateArray();
            cJSON_AddItemToArray(pair, cJSON_CreateString(header));
            cJSON_AddItemToArray(pair, cJSON_CreateString(value));
            cJSON_AddItemToArray(c->headers, pair);
        }
    }
}

static void opened(struct conn *c, struct lws *wsi)
{
    c->wsi = wsi;
    c->index = g_next_index++;
    c->close_code = -1;
    c->next = g_conns;
    g_conns = c;

    cJSON *event = new_event("open", c);
    cJSON_AddStringToObject(event, "method", c->path != NULL ? "GET" : "");
    cJSON_AddStringToObject(event, "path", c->path != NULL ? c->path : "");
    cJSON_AddNullToObject(event, "version");
    if (lws_hdr_total_length(wsi, WSI_TOKEN_PROTOCOL) > 0)
        cJSON_AddStringToObject(event, "protocol", lws_get_protocol(wsi)->name);
    else
        cJSON_AddNullToObject(event, "protocol");
    cJSON_AddItemToObject(event, "headers", c->headers);
    c->headers = NULL;
    SSL *ssl = lws_get_ssl(wsi);
    cJSON_AddBoolToObject(event, "tls", ssl != NULL);
    if (ssl != NULL)
        cJSON_AddBoolToObject(event, "resumed", SSL_session_reused(ssl));
    else
        cJSON_AddNullToObject(event, "resumed");
    emit(event);
}

static void closed(struct conn *c)
{
    if (c->index == 0) {        /* refused during the handshake */
        cJSON_Delete(c->headers);
        free(c->path);
        return;
    }
    for (struct conn **p = &g_conns; *p != NULL; p = &(*p)->next) {
        if (*p == c) {
            *p = c->next;
            break;
        }
    }
    cJSON *event = new_event("closed", c);
    if (c->close_code >= 0)
        cJSON_AddNumberToObject(event, "code", c->close_code);
    else
        cJSON_AddNullToObject(event, "code");   /* the library does not tell */
    cJSON_AddStringToObject(event, "reason", c->close_reason);
    emit(event);
    while (c->head != NULL) {
        struct out_item *item = c->head;
        c->head = item->next;
        free(item);
    }
    free(c->rx);
    free(c->path);
    cJSON_Delete(c->headers);
}

static void received(struct conn *c, struct lws *wsi, const void *in, size_t len)
{
    if (c->rx_len + len + 1 > c->rx_cap) {
        c->rx_cap = (c->rx_len + len + 1) * 2;
        c->rx = realloc(c->rx, c->rx_cap);
    }
    memcpy(c->rx + c->rx_len, in, len);
    c->rx_len += len;
    if (!lws_is_final_fragment(wsi) || lws_remaining_packet_payload(wsi) != 0)
        return;
    c->rx[c->rx_len] = '\0';
    cJSON *event = new_event("text", c);
    cJSON_AddStringToObject(event, "text", (const char *)c->rx);
    emit(event);
    c->rx_len = 0;
}

static void peer_closing(struct conn *c, const unsigned char *in, size_t len)
{
    c->close_code = len >= 2 ? (in[0] << 8 | in[1]) : 1005;
    if (len > 2)
        snprintf(c->close_reason, sizeof c->close_reason, "%.*s", (int)(len - 2),
                 (const char *)in + 2);
}

/* Writes the first waiting frame; -1 closes the connection. */
static int write_next(struct conn *c, struct lws *wsi)
{
    struct out_item *item = c->head;
    if (item == NULL)
        return 0;
    c->head = item->next;
    if (c->head == NULL)
        c->tail = NULL;
    int rc = 0;
    if (item->kind == ITEM_CLOSE) {
        lws_close_reason(wsi, (enum lws_close_status)item->code,
                         item->buf + LWS_PRE, item->len);
        rc = -1;
    } else {
        enum lws_write_protocol mode = item->kind == ITEM_TEXT ? LWS_WRITE_TEXT : LWS_WRITE_PING;
        if (lws_write(wsi, item->buf + LWS_PRE, item->len, mode) < (int)item->len)
            rc = -1;
    }
    free(item);
    if (rc == 0 && c->head != NULL)
        lws_callback_on_writable(wsi);
    return rc;
}

/* ----- commands ---------------------------------------------------------- */

static struct conn *target(const cJSON *cmd, const char **error)
{
    const cJSON *index = cJSON_GetObjectItemCaseSensitive(cmd, "conn");
    for (struct conn *c = g_conns; c != NULL; c = c->next) {   /* newest first */
        if (!cJSON_IsNumber(index) || c->index == index->valueint)
            return c;
    }
    *error = cJSON_IsNumber(index) ? "connection is not open" : "no open connection";
    return NULL;
}

static void queue_item(struct conn *c, enum item_kind kind, int code,
                       const unsigned char *data, size_t len)
{
    struct out_item *item = calloc(1, sizeof *item + LWS_PRE + len);
    item->kind = kind;
    item->code = code;
    item->len = len;
    memcpy(item->buf + LWS_PRE, data, len);
    if (c->tail != NULL)
        c->tail->next = item;
    else
        c->head = item;
    c->tail = item;
    lws_callback_on_writable(c->wsi);
}

static const char *run_command(const cJSON *cmd, const char *name)
{
    const char *error = NULL;
    if (strcmp(name, "quit") == 0) {
        g_quit = 1;
        return NULL;
    }
    if (strcmp(name, "send") != 0 && strcmp(name, "ping") != 0 && strcmp(name, "close") != 0)
        return "unknown command";
    struct conn *c = target(cmd, &error);
    if (c == NULL)
        return error;
    if (strcmp(name, "send") == 0) {
        const char *text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(cmd, "text"));
        if (text == NULL)
            return "send needs \"text\"";
        queue_item(c, ITEM_TEXT, 0, (const unsigned char *)text, strlen(text));
    } else if (strcmp(name, "ping") == 0) {
        const char *hex = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(cmd, "payload"));
        unsigned char payload[125];
        size_t len = 0;
        if (hex != NULL && from_hex(hex, payload, sizeof payload, &len) != 0)
            return "bad ping payload";
        queue_item(c, ITEM_PING, 0, payload, len);
    } else {
        const cJSON *code = cJSON_GetObjectItemCaseSensitive(cmd, "code");
        const char *reason = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(cmd, "reason"));
        if (reason == NULL)
            reason = "";
        queue_item(c, ITEM_CLOSE, cJSON_IsNumber(code) ? code->valueint : 1000,
                   (const unsigned char *)reason, strlen(reason));
    }
    return NULL;
}

static void run_line(const char *text)
{
    cJSON *cmd = cJSON_Parse(text);
    const char *name = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(cmd, "cmd"));
    const char *error = name == NULL ? "not a command" : run_command(cmd, name);
    cJSON *ack = new_event("ack", NULL);
    if (name != NULL)
        cJSON_AddStringToObject(ack, "cmd", name);
    else
        cJSON_AddNullToObject(ack, "cmd");
    const cJSON *seq = cJSON_GetObjectItemCaseSensitive(cmd, "seq");
    cJSON_AddItemToObject(ack, "seq", seq != NULL ? cJSON_Duplicate(seq, 1) : cJSON_CreateNull());
    cJSON_AddBoolToObject(ack, "ok", error == NULL);
    if (error != NULL)
        cJSON_AddStringToObject(ack, "error", error);
    emit(ack);
    cJSON_Delete(cmd);
}

static void run_pending_lines(void)
{
    pthread_mutex_lock(&g_lines_lock);
    struct line *lines = g_lines_head;
    g_lines_head = g_lines_tail = NULL;
    if (g_stdin_closed)
        g_quit = 1;
    pthread_mutex_unlock(&g_lines_lock);
    while (lines != NULL) {
        struct line *next = lines->next;
        if (lines->text[strspn(lines->text, " \t\r\n")] != '\0')
            run_line(lines->text);
        free(lines);
        lines = next;
    }
}

static void *read_commands(void *arg)
{
    (void)arg;
    char *buf = NULL;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&buf, &cap, stdin)) >= 0) {
        struct line *line = calloc(1, sizeof *line + (size_t)n + 1);
        memcpy(line->text, buf, (size_t)n);
        pthread_mutex_lock(&g_lines_lock);
        if (g_lines_tail != NULL)
            g_lines_tail->next = line;
        else
            g_lines_head = line;
        g_lines_tail = line;
        if (g_context_alive)
            lws_cancel_service(g_context);
        pthread_mutex_unlock(&g_lines_lock);
    }
    free(buf);
    pthread_mutex_lock(&g_lines_lock);
    g_stdin_closed = 1;
    if (g_context_alive)
        lws_cancel_service(g_context);
    pthread_mutex_unlock(&g_lines_lock);
    return NULL;
}

/* ----- the protocol ------------------------------------------------------ */

static int callback(struct lws *wsi, enum lws_callback_reasons reason, void *user,
                    void *in, size_t len)
{
    struct conn *c = user;
    switch (reason) {
    case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
        record_handshake(c, wsi);
        break;
    case LWS_CALLBACK_ESTABLISHED:
        opened(c, wsi);
        break;
    case LWS_CALLBACK_RECEIVE:
        received(c, wsi, in, len);
        break;
    case LWS_CALLBACK_RECEIVE_PONG: {
        char *hex = to_hex(in, len);
        cJSON *event = new_event("pong", c);
        cJSON_AddStringToObject(event, "payload", hex);
        emit(event);
        free(hex);
        break;
    }
    case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
        peer_closing(c, in, len);
        break;
    case LWS_CALLBACK_SERVER_WRITEABLE:
        return write_next(c, wsi);
    case LWS_CALLBACK_CLOSED:
        closed(c);
        break;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
        run_pending_lines();
        break;
    default:
        break;
    }
    return 0;
}

static const struct lws_protocols protocols[] = {
    {"http", lws_callback_http_dummy, 0, 0, 0, NULL, 0},
    {SUBPROTOCOL, callback, sizeof(struct conn), 0, 0, NULL, 0},
    {NULL, NULL, 0, 0, 0, NULL, 0},
};

static void usage(void)
{
    fprintf(stderr, "usage: lws_server [--host ADDRESS] [--port N] [--tls --cert-dir DIR]\n");
    exit(2);
}

int main(int argc, char **argv)
{
    const char *host = "127.0.0.1";
    const char *cert_dir = NULL;
    int port = 0, tls = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--host") == 0 && i + 1 < argc)
            host = argv[++i];
        else if (strcmp(argv[i], "--port") == 0 && i + 1 < argc)
            port = atoi(argv[++i]);
        else if (strcmp(argv[i], "--tls") == 0)
            tls = 1;
        else if (strcmp(argv[i], "--cert-dir") == 0 && i + 1 < argc)
            cert_dir = argv[++i];
        else
            usage();
    }
    if (tls && cert_dir == NULL)
        usage();

    lws_set_log_level(LLL_ERR | LLL_WARN, NULL);   /* to standard error */

    char cert[4096], key[4096];
    struct lws_context_creation_info info;
    memset(&info, 0, sizeof info);
    info.iface = host;
    info.port = port;
    info.protocols = protocols;
    info.options = LWS_SERVER_OPTION_VALIDATE_UTF8 | LWS_SERVER_OPTION_DISABLE_IPV6;
    if (tls) {
        snprintf(cert, sizeof cert, "%s/server.crt", cert_dir);
        snprintf(key, sizeof key, "%s/server.key", cert_dir);
        info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        info.ssl_cert_filepath = cert;
        info.ssl_private_key_filepath = key;
    }
    g_context = lws_create_context(&info);
    if (g_context == NULL) {
        fprintf(stderr, "lws_server: cannot listen on %s:%d\n", host, port);
        return 1;
    }
    cJSON *event = new_event("listening", NULL);
    cJSON_AddStringToObject(event, "server", "lws");
    cJSON_AddNumberToObject(event, "port",
                            lws_get_vhost_listen_port(lws_get_vhost_by_name(g_context, "default")));
    cJSON_AddBoolToObject(event, "tls", tls);
    emit(event);

    g_context_alive = 1;
    pthread_t reader;
    pthread_create(&reader, NULL, read_commands, NULL);
    pthread_detach(reader);
    while (!g_quit)
        if (lws_service(g_context, 0) < 0)
            break;
    pthread_mutex_lock(&g_lines_lock);
    g_context_alive = 0;
    pthread_mutex_unlock(&g_lines_lock);
    lws_context_destroy(g_context);
    return 0;
}
