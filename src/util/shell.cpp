/* Running shell pipelines with bounded output, and the UCI wrappers. */
#define KC_MODULE "kapri_util.cpp"
#include "util/kapri_util.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/debug.h"
#include "util/spawn.h"

const char SHELL_ERROR_TEXT[] = "ERROR";

/* The real backend: the device's shell, started as popen and system start
 * it, without what the agent must not hand down (util/spawn.h). */
static FILE *openRealPipe(const char *cmd, const char *mode)
{
    if (mode == NULL || mode[0] != 'r')
        return NULL; /* the runner only reads */
    return spawn_pipe(cmd);
}

static int closeRealPipe(FILE *stream)
{
    return close_spawned_pipe(stream);
}

static int runRealCommand(const char *cmd)
{
    return spawn_and_wait(cmd);
}

static const ShellBackend kRealBackend = {openRealPipe, closeRealPipe, runRealCommand};
static ShellBackend s_backend = kRealBackend;

void setShellBackend(const ShellBackend *backend)
{
    if (backend == NULL) {
        s_backend = kRealBackend;
        return;
    }
    KC_ASSERT(backend->open != NULL && backend->close != NULL && backend->run != NULL,
              "backend->open != NULL && backend->close != NULL && backend->run != NULL");
    s_backend = *backend;
}

int run_system_command(const char *cmd)
{
    return s_backend.run(cmd);
}

/*
 * Reads the stream in fgets chunks of 128 bytes (127 characters, or up to
 * and including a newline).  A chunk counts up to its first NUL byte.  With
 * max_len below 129 only the first chunk is read, cut to max_len.  Larger
 * caps take whole chunks while a full one still fits, then a last one cut
 * to the room left.
 */
char *read_capped_output(FILE *stream, int max_len)
{
    if (stream == NULL || max_len < 1)
        return NULL;
    /* max_len characters plus the terminator. */
    char *out = static_cast<char *>(calloc((size_t)max_len + 1, 1));
    size_t used = 0;
    char chunk[128];
    while (!feof(stream)) {
        if (fgets(chunk, sizeof chunk, stream) == NULL) {
            if (!ferror(stream))
                continue;
            if (errno != EINTR)
                break; /* a broken pipe would never reach its end */
            clearerr(stream);
            continue;
        }
        size_t room;
        int last = 0;
        if (max_len < 129) {
            room = (size_t)max_len;
            last = 1;
        } else if (used > (size_t)max_len - 128) {
            room = (size_t)max_len - used;
            last = 1;
        } else {
            room = sizeof chunk;
        }
        size_t n = strlen(chunk);
        if (n > room)
            n = room;
        memcpy(out + used, chunk, n);
        used += n;
        out[used] = '\0';
        if (last)
            break;
    }
    return out;
}

char *run_shell_command(const char *cmd, int max_len)
{
    if (cmd == NULL || max_len < 1)
        return const_cast<char *>(SHELL_ERROR_TEXT);
    FILE *stream = s_backend.open(cmd, "r");
    if (stream == NULL)
        return const_cast<char *>(SHELL_ERROR_TEXT);
    char *out = read_capped_output(stream, max_len);
    s_backend.close(stream);
    return out;
}

void free_shell_output(char *text)
{
    if (text != NULL && text != SHELL_ERROR_TEXT)
        free(text);
}

int is_process_running(const char *name)
{
    if (name == NULL || name[0] == '\0')
        return 0;
    run_system_command("ps > /tmp/ps.txt");
    char cmd[512];
    snprintf(cmd, sizeof cmd,
             "(grep -q %s /tmp/ps.txt) && (echo 1 | tr -d '\\n') || "
             "(echo 0 | tr -d '\\n')",
             name);
    char *out = run_shell_command(cmd, 3);
    int running = atoi(out);
    free_shell_output(out);
    run_system_command("rm -f /tmp/ps.txt");
    return running;
}

char *str_to_upper(const char *text)
{
    size_t n = strlen(text);
    char *upper = static_cast<char *>(malloc(n + 1));
    for (size_t i = 0; i < n; i++)
        upper[i] = (char)toupper((unsigned char)text[i]);
    upper[n] = '\0';
    return upper;
}

char *uci_get(const char *path)
{
    if (path == NULL) {
        printf("Error!\n");
        return NULL;
    }
    char *word = shell_quote_path(path);
    size_t size = strlen(word) + 25;
    char *cmd = static_cast<char *>(malloc(size));
    snprintf(cmd, size, "uci get %s | tr -d '\\n'", word);
    free(word);
    char *value = run_shell_command(cmd, 256);
    free(cmd);
    return value;
}

int uci_get_int(const char *path)
{
    if (path == NULL)
        return -1;
    char *value = uci_get(path);
    int result = -1;
    if (value != NULL && value[0] != '\0')
        result = atoi(value);
    free_shell_output(value);
    return result;
}

int uci_set(const char *path, const char *value)
{
    if (path == NULL || value == NULL)
        return 0;
    /* The value reaches uci literally: inside the double quotes, " $ `
     * and \ get a backslash, so a value without them gives the command
     * line exactly as before. */
    char *word = shell_quote_path(path);
    char *escaped = shell_escape_dquoted(value);
    char cmd[1024];
    snprintf(cmd, sizeof cmd, "uci set %s=\"%s\"", word, escaped);
    free(escaped);
    free(word);
    run_system_command(cmd);
    return 1;
}

int uci_set_int(const char *path, int value)
{
    if (path == NULL)
        return 0;
    char *word = shell_quote_path(path);
    char cmd[1024];
    snprintf(cmd, sizeof cmd, "uci set %s=%d", word, value);
    free(word);
    run_system_command(cmd);
    return 1;
}

int uci_commit(const char *package)
{
    /* Every commit commits all packages: handlers that change several
     * packages rely on one commit.  Only an empty name takes the other
     * form, which runs the same command with a trailing blank. */
    if (package != NULL && package[0] == '\0') {
        char cmd[64];
        snprintf(cmd, sizeof cmd, "uci commit %s", package);
        return run_system_command(cmd);
    }
    return run_system_command("uci commit");
}
