/*
 * What the device is and how it does: firmware, model, LAN address,
 * dates, uptime, load, CPU and memory, each read through a shell pipeline.
 *
 * Ownership: the char * getters return new texts (util/text.h: release
 * with free_text), except get_current_date, which returns one static
 * buffer (overwritten by the next call, never released).  The pure
 * formatting steps take text and return new texts as well.  The CPU sample
 * and the beta-mode flag are process-wide values without a lock other than
 * their atomicity.
 */
#ifndef KC_UTIL_FACTS_H
#define KC_UTIL_FACTS_H

#include <stdint.h>

#include <atomic>

#include "util/text.h"

/* Set by the maintenance timer when beta mode is on; never cleared. */
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

/* Pure formatting steps of the getters above. */
char *cut_firmware_version(const char *text, int parts);
char *format_uptime(long seconds);
char *format_load_average(const char *text);
int cpu_figure_to_percent(const char *text);
uint32_t kilobytes_text_to_bytes(const char *text);

#endif
