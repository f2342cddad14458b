/*
 * Secrets kept out of what the agent prints.
 *
 * The frame dumps and debug lines go to standard output, which the service
 * manager sends to the system log (and from there to a remote log server
 * or the web interface).  The values of the members "password" and
 * "radiusSecret" (names matched without regard to case, as the request
 * accessors match them) are printed as "***" there; the text on the wire
 * is never changed.
 *
 * Ownership: redact_secrets returns a new heap text that the caller
 * releases with free_text (util/text.h; NULL for NULL); secret_shown
 * returns a constant text.
 */
#ifndef KC_UTIL_REDACT_H
#define KC_UTIL_REDACT_H

/* What a secret is printed as. */
#define REDACTED_TEXT "***"

/* 1 when name (a member name, already decoded) is one whose value is a
 * secret. */
int is_secret_member(const char *name);

/* A copy of the JSON text (any text: a frame that is not JSON, or a cut
 * one, is taken as far as it reads like JSON) in which the string value of
 * every secret member reads "***".  Everything else is copied as it is. */
char *redact_secrets(const char *text);

/* How a debug line shows a secret value: "***", or "(null)" when absent. */
const char *secret_shown(const char *value);

#endif
