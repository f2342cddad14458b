/*
 * The UCI configuration through the `uci` tool: get, set and commit.
 *
 * Ownership: uci_get returns a new text (util/text.h: release with
 * free_text), or the runner's SHELL_ERROR_TEXT, or NULL for a NULL path.
 * Paths are put into the command as util/shell_quote.h's shell_quote_path
 * does, values of uci_set as shell_escape_dquoted does.  Nothing here
 * reports uci's own exit status.
 */
#ifndef KC_UTIL_UCI_H
#define KC_UTIL_UCI_H

#include "util/text.h"

/* "uci get PATH | tr -d '\n'", at most 256 bytes of its output. */
char *uci_get(const char *path);
/* The value as an integer (atoi); -1 when empty or for a NULL path. */
int uci_get_int(const char *path);
/* uci set PATH="VALUE": 1 when run, 0 when an argument was missing. */
int uci_set(const char *path, const char *value);
/* uci set PATH=N: 1 when run, 0 for a NULL path. */
int uci_set_int(const char *path, int value);
/* Commits every package whatever name is given ("uci commit"; only an
 * empty name gives "uci commit " with a trailing blank): the shell's
 * status. */
int uci_commit(const char *package);

#endif
