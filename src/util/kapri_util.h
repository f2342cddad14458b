/*
 * Device helpers: shell and UCI access, system facts, dump colouring,
 * update-interval names and the agent's settings.
 */
#ifndef KC_UTIL_KAPRI_UTIL_H
#define KC_UTIL_KAPRI_UTIL_H

#include <stdint.h>
#include <stdio.h>

#include <atomic>

#include "util/shell_quote.h"

#define KAPRI_UTIL_SCRIPT "/usr/sbin/kapri_util.lua"

/* ---- shell and UCI ---- */

/* The constant text run_shell_command returns on failure (never freed). */
extern const char SHELL_ERROR_TEXT[];

/*
 * Where commands go: popen/pclose for run_shell_command, system for every
 * other command of this module (run_system_command).  The real ones are
 * the default; tests and fuzz targets put in their own, which must not run
 * anything they are not meant to.  Set it before any thread runs commands;
 * NULL puts the real ones back.  Every member is required.
 */
struct ShellBackend {
    FILE *(*open)(const char *cmd, const char *mode); /* popen */
    int (*close)(FILE *stream);                       /* pclose */
    int (*run)(const char *cmd);                      /* system */
};
void setShellBackend(const ShellBackend *backend);

/* system(cmd) through the backend: device commands of handlers go here. */
int run_system_command(const char *cmd);

/* Output of cmd, at most max_len bytes, as a new text; or SHELL_ERROR_TEXT. */
char *run_shell_command(const char *cmd, int max_len);
/* The reading step of run_shell_command: at most max_len bytes of stream,
 * as a new text (caller frees); NULL when stream is NULL or max_len < 1.
 * The stream is left open. */
char *read_capped_output(FILE *stream, int max_len);
/* Frees a run_shell_command result (the error constant is left alone). */
void free_shell_output(char *text);
int is_process_running(const char *name);
char *str_to_upper(const char *text);
char *uci_get(const char *path);
int uci_get_int(const char *path);
int uci_set(const char *path, const char *value);
int uci_set_int(const char *path, int value);
int uci_commit(const char *package);

/* ---- facts ---- */

extern std::atomic<int> g_betaMode;
/* CPU usage in percent kept by the status sampler; 0 at start. */
extern std::atomic<int> g_cpuUsage;

/* Takes one sample of the aggregate CPU times from /proc/stat and sets
 * g_cpuUsage to the busy share since the previous sample (0 when no time
 * passed).  Nothing changes when a sample cannot be read. */
void calculateCPUUsage(void);
/* The arithmetic of one step: usage from the two samples. */
int cpu_usage_between(unsigned long idle1, unsigned long total1,
                      unsigned long idle2, unsigned long total2);

char *get_firmware_version(int parts);
char *get_model_name(void);
char *get_lan_ip_address(void);
const char *get_current_date(void);
char *get_iso_timestamp(int withOffset);
char *get_uptime_text(void);
char *get_system_led_state(void);
char *get_load_average_text(void);
int get_cpu_usage(void);
char *get_free_memory_text(void);
uint32_t get_free_memory_bytes(void);
char *get_used_memory_text(void);
uint32_t get_used_memory_bytes(void);
char *compact_timestamp(const char *dateTime);

/* Pure formatting steps of the getters above (new texts, caller frees). */
char *cut_firmware_version(const char *text, int parts);
char *format_uptime(long seconds);
char *format_load_average(const char *text);
int cpu_figure_to_percent(const char *text);
uint32_t kilobytes_text_to_bytes(const char *text);

/* ---- dump colouring ---- */

/* Colours the value after "key" in text (capacity bytes) in place; 1 if done. */
int colour_json_value(char *text, unsigned int capacity, const char *key,
                      const char *colour);

/* ---- settings ---- */

int frequency_name_to_seconds(const char *name);

/* 1 while "/tmp/luci_reload_cmd" exists: dispatch and status updates wait. */
extern std::atomic<int> g_luciReloadPause;

extern int g_timeSyncBase;
extern int g_timeSyncPeriod;
extern std::atomic<int> g_remoteAccessTimeout;

void load_settings_to_globals(void);

#endif
