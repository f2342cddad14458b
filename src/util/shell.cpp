/* Running shell pipelines with bounded output. */
#define KC_MODULE "kapri_util.cpp"
#include "util/shell.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/debug.h"
#include "util/spawn.h"

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
    free_text(out);
    run_system_command("rm -f /tmp/ps.txt");
    return running;
}
