/* The UCI wrappers: uci get, set and commit through the shell runner. */
#define KC_MODULE "kapri_util.cpp"
#include "util/uci.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/shell.h"
#include "util/shell_quote.h"

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
    free_text(word);
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
    free_text(value);
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
    free_text(escaped);
    free_text(word);
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
    free_text(word);
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
