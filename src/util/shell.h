/*
 * Running the device's commands: a shell pipeline whose output is read up
 * to a cap, a command run for its effect, and the process-list check.
 *
 * Ownership: run_shell_command and read_capped_output return new texts
 * (util/text.h: release with free_text); run_shell_command gives the
 * constant SHELL_ERROR_TEXT when the command could not be run.  Commands
 * block the calling thread until their output ends.  Command lines that
 * carry outside text are built with util/shell_quote.h.
 */
#ifndef KC_UTIL_SHELL_H
#define KC_UTIL_SHELL_H

#include <stdio.h>

#include "util/text.h"

/* The device's utility script. */
#define KAPRI_UTIL_SCRIPT "/usr/sbin/kapri_util.lua"

/*
 * Where commands go: open/close for run_shell_command, run for every other
 * command (run_system_command).  The real ones (the device's shell started
 * as util/spawn.h does) are the default; tests and fuzz targets put in
 * their own, which must not run anything they are not meant to.  Set it
 * before any thread runs commands; NULL puts the real ones back.  Every
 * member is required.
 */
struct ShellBackend {
    FILE *(*open)(const char *cmd, const char *mode); /* as popen */
    int (*close)(FILE *stream);                       /* as pclose */
    int (*run)(const char *cmd);                      /* as system */
};
void setShellBackend(const ShellBackend *backend);

/* Runs cmd through the backend and waits: its wait status. */
int run_system_command(const char *cmd);

/* Output of cmd, at most max_len bytes, as a new text; SHELL_ERROR_TEXT
 * when cmd is NULL, max_len is below 1 or the command could not be run.
 * Newlines are kept. */
char *run_shell_command(const char *cmd, int max_len);
/* The reading step of run_shell_command: at most max_len bytes of stream,
 * as a new text; NULL when stream is NULL or max_len < 1.  The stream is
 * left open. */
char *read_capped_output(FILE *stream, int max_len);

/* 1 when name occurs in the process list (as a grep pattern), else 0; an
 * empty name is 0 without running anything. */
int is_process_running(const char *name);

#endif
