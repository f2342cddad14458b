/*
 * Starting the device's shell for one command line, as popen and system do,
 * with what the command must not inherit from the agent left out:
 *   - its signal mask is empty, whatever the calling thread blocks (the
 *     agent's worker threads block SIGTERM; the shells at hand clear the
 *     mask themselves, this does not rely on it);
 *   - SIGPIPE is back to its default (the agent ignores it);
 *   - it gets descriptors 0, 1 and 2 only (a library's socket opened
 *     without close-on-exec, for example, stays in the agent).
 *
 * Ownership: spawn_pipe's stream belongs to the caller until
 * close_spawned_pipe, which also waits for the command.
 */
#ifndef KC_UTIL_SPAWN_H
#define KC_UTIL_SPAWN_H

#include <stdio.h>

/* "/bin/sh -c cmd" with its standard output readable from the stream;
 * NULL when it could not be started. */
FILE *spawn_pipe(const char *cmd);
/* Closes the stream and waits for its command: the command's wait status,
 * or -1 for a stream spawn_pipe did not give. */
int close_spawned_pipe(FILE *stream);
/* Runs "/bin/sh -c cmd" and waits for it: its wait status, or -1 when it
 * could not be started. */
int spawn_and_wait(const char *cmd);

#endif
