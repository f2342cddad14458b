/*
 * Putting text that comes from a request or from the server into a shell
 * command line so that the shell takes it literally, never as code.
 *
 *   shell_quote         the text as one shell word: text made only of
 *                       letters, digits and . : - _ / stays as it is
 *                       (so ordinary MACs, addresses, section names and
 *                       numbers read as before); anything else, the empty
 *                       text included, is put in single quotes, each single
 *                       quote inside written as '\''.
 *   shell_quote_path    a UCI option path: as shell_quote, but the path
 *                       characters @ [ ] leave it as it is too.
 *   shell_escape_dquoted  the text for use between double quotes: a
 *                       backslash before each double quote, dollar sign,
 *                       backquote and backslash; every other character is
 *                       kept, so text without those four is unchanged.
 *
 * Each returns a new heap text that the caller releases with free_text
 * (util/text.h); NULL in,
 * NULL out.  Every command line that carries request text is built through
 * one of these (the UCI wrappers quote their path with shell_quote_path and
 * uci_set its value with shell_escape_dquoted; fw_update keeps its own
 * escaping).
 */
#ifndef KC_UTIL_SHELL_QUOTE_H
#define KC_UTIL_SHELL_QUOTE_H

char *shell_quote(const char *text);
/* A UCI option path as one shell word: a path made only of letters,
 * digits and . _ - @ [ ] (every path the agent builds from its own names,
 * "dhcp.@dnsmasq[0].resolvfile" included) stays as it is; anything else
 * (a section name read back from the device, say) is quoted as shell_quote
 * does. */
char *shell_quote_path(const char *path);
char *shell_escape_dquoted(const char *text);

/* 1 when shell_quote leaves text as it is (a plain word). */
int shell_is_plain_word(const char *text);

#endif
