/*
 * Texts that src/util hands out, and the one way to release them.
 *
 * Ownership: every char * a src/util function returns (the shell runner's
 * output, the fact getters, the quoting helpers, the list edits, the
 * upper-cased copy, ...) is a new heap text that the caller releases with
 * free_text().  The runner's constant SHELL_ERROR_TEXT may come back in its
 * place; free_text() leaves it alone.  The one exception is
 * get_current_date() (util/facts.h), which returns a static buffer.
 * Arguments are only read unless a function says it changes them in place.
 */
#ifndef KC_UTIL_TEXT_H
#define KC_UTIL_TEXT_H

/* The constant text the shell runner gives instead of a command's output
 * when the command could not be run (never freed). */
extern const char SHELL_ERROR_TEXT[];

/* Releases a text src/util handed out (NULL and SHELL_ERROR_TEXT are left
 * alone). */
void free_text(char *text);

/* An upper-case copy of text. */
char *str_to_upper(const char *text);

#endif
