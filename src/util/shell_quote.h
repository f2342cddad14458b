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
 *   shell_escape_dquoted  the text for use between double quotes: a
 *                       backslash before each double quote, dollar sign,
 *                       backquote and backslash; every other character is
 *                       kept, so text without those four is unchanged.
 *
 * Both return a new heap text that the caller frees with free(); NULL in,
 * NULL out.  Every command line that carries request text is built through
 * one of these (uci_set uses the second; fw_update keeps its own escaping).
 */
#ifndef KC_UTIL_SHELL_QUOTE_H
#define KC_UTIL_SHELL_QUOTE_H

char *shell_quote(const char *text);
char *shell_escape_dquoted(const char *text);

/* 1 when shell_quote leaves text as it is (a plain word). */
int shell_is_plain_word(const char *text);

#endif
