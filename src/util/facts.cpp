/* System facts, each read through one shell pipeline. */
#define KC_MODULE "kapri_util.cpp"
#include "util/shell.h"
#include "util/text.h"
#include "util/facts.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/debug.h"

std::atomic<int> g_betaMode{0};
std::atomic<int> g_cpuUsage{0};

static char *dup_text(const char *text)
{
    return strdup(text);
}

char *cut_firmware_version(const char *text, int parts)
{
    char *version = dup_text(text);
    int dots = 0;
    for (char *p = version; *p != '\0'; p++) {
        if (*p == '.' && ++dots == parts) {
            *p = '\0';
            break;
        }
    }
    return version;
}

char *get_firmware_version(int parts)
{
    char *out = run_shell_command(
        "cat /etc/version | cut -d- -f1 | cut -d' ' -f1 | tr -d '\n'", 256);
    if (out == NULL || out[0] == '\0') {
        free_text(out);
        return dup_text("UnKnown");
    }
    char *version = cut_firmware_version(out, parts);
    free_text(out);
    return version;
}

char *get_model_name(void)
{
    char *out = run_shell_command(
        "cat /etc/mDNSResponder.conf  | grep VK | sed 's/^.\"//g' |  sed "
        "'s/\".*$//g' | tr -d '\\n'",
        20);
    char model[64];
    snprintf(model, sizeof model, "%s%s", out, g_betaMode.load() ? "-BETA" : "");
    free_text(out);
    return str_to_upper(model);
}

char *get_lan_ip_address(void)
{
    return run_shell_command(
        "ifconfig br-lan | grep 'inet addr' | sed -e 's/.*addr://g' | sed -e "
        "'s/ .*//g' | tr -d '\\n'",
        100);
}

const char *get_current_date(void)
{
    static char date[64];
    char *out = run_shell_command("date +'%Y/%m/%d %H:%M:%S' | tr -d '\\n'", 50);
    snprintf(date, sizeof date, "%s", out);
    free_text(out);
    return date;
}

char *get_iso_timestamp(int withOffset)
{
    if (!withOffset)
        return run_shell_command("date +'%Y-%m-%dT%H:%M:%S' | tr -d '\\n'", 50);
    char *out = run_shell_command(
        "date +'%Y-%m-%dT%H:%M:%S%z' | sed 's/[0-9][0-9]$/:&/'", 50);
    if (out != SHELL_ERROR_TEXT) {
        char *newline = strchr(out, '\n');
        if (newline != NULL)
            *newline = '\0';
    }
    return out;
}

char *format_uptime(long s)
{
    char full[64];
    long days = s / 86400;
    int h = (int)(s % 86400 / 3600), m = (int)(s % 3600 / 60), sec = (int)(s % 60);
    if (s >= 86400)
        snprintf(full, sizeof full, "%ldd %02d:%02d:%02d", days, h, m, sec);
    else
        snprintf(full, sizeof full, "%02d:%02d:%02d", h, m, sec);
    char *text = static_cast<char *>(malloc(20));
    snprintf(text, 20, "%s", full); /* the result is a 20-byte text */
    return text;
}

char *get_uptime_text(void)
{
    char *out = run_shell_command(
        "cat /proc/uptime | sed -e 's/\\..*//g' | tr -d '\\n'", 20);
    long seconds = atol(out);
    free_text(out);
    return format_uptime(seconds);
}

char *get_system_led_state(void)
{
    return run_shell_command("uci get led.led.SystemLED | tr -d '\\n'", 3);
}

char *format_load_average(const char *text)
{
    float load = 0;
    sscanf(text, "%f", &load);
    char *result = static_cast<char *>(malloc(8));
    snprintf(result, 8, "%.1f%%", load * 100.0);
    return result;
}

char *get_load_average_text(void)
{
    char *out = run_shell_command(
        "cat /proc/loadavg | sed -e 's/ .*//g' | tr -d '\\n'", 50);
    char *load = format_load_average(out);
    free_text(out);
    return load;
}

int cpu_figure_to_percent(const char *text)
{
    float figure = 0;
    sscanf(text, "%f", &figure);
    if (figure > 100.0f)
        figure = 100.0f;
    /* A NaN or negative figure ("nan", "-1e30") reads 0: it has no int
     * value to convert to. */
    if (!(figure >= 0.0f))
        figure = 0.0f;
    return (int)figure;
}

int get_cpu_usage(void)
{
    int usage = g_cpuUsage;
    if (usage >= 0 && usage <= 100)
        return usage;
    char *out = run_shell_command(
        "top -bn1 | grep CPU | head -n 1 | awk '{print $2 + $4 + $6 + $10 + "
        "$12 + $14}'",
        50);
    usage = cpu_figure_to_percent(out);
    free_text(out);
    return usage;
}

/* Samples of the aggregate idle and total CPU times.  A status thread
 * starts once a period; two may overlap when one is slow, so the samples
 * are taken under their own lock. */
static unsigned long s_idle1 = 0, s_idle2 = 0, s_total1 = 0, s_total2 = 0;
static pthread_mutex_t s_sampleLock = PTHREAD_MUTEX_INITIALIZER;

int cpu_usage_between(unsigned long idle1, unsigned long total1,
                      unsigned long idle2, unsigned long total2)
{
    /* unsigned, as the counters themselves */
    unsigned long total = total2 - total1;
    if (total == 0)
        return 0; /* no time between the samples */
    return (int)(100 - (idle2 - idle1) * 100 / total);
}

void calculateCPUUsage(void)
{
    char *idleText = run_shell_command(
        "grep 'cpu ' /proc/stat | awk '{idle=($5)} END {print idle}'", 128);
    char *totalText = run_shell_command(
        "grep 'cpu ' /proc/stat | awk '{ttl=($2+$3+$4+$5+$6+$7+$8+$9+$10)} END {print ttl}'",
        128);
    if (idleText[0] != '\0' && totalText[0] != '\0' && idleText != SHELL_ERROR_TEXT &&
        totalText != SHELL_ERROR_TEXT) {
        unsigned long idle = 0, total = 0;
        sscanf(idleText, "%lu", &idle);
        sscanf(totalText, "%lu", &total);
        pthread_mutex_lock(&s_sampleLock);
        s_idle1 = s_idle2;
        s_total1 = s_total2;
        s_idle2 = idle;
        s_total2 = total;
        int usage = cpu_usage_between(s_idle1, s_total1, s_idle2, s_total2);
        g_cpuUsage = usage;
        KC_DEBUG_AT(2481,
                    "usageIdle2 = %lu, usageIdle1 = %lu, usageTtl2 = %lu, usageTtl1 = %lu, "
                    "cpuUsage = %d\n",
                    s_idle2, s_idle1, s_total2, s_total1, usage);
        pthread_mutex_unlock(&s_sampleLock);
    }
    free_text(idleText);
    free_text(totalText);
}

/* Kilobytes are kept as a 32-bit byte count, as on the device. */
uint32_t kilobytes_text_to_bytes(const char *text)
{
    if (text == NULL || text[0] == '\0')
        return 0;
    /* strtol saturates where atoi would overflow */
    return (uint32_t)strtol(text, NULL, 10) << 10;
}

static char *memory_text(const char *cmd)
{
    char *out = run_shell_command(cmd, 10);
    char *text = static_cast<char *>(malloc(32));
    snprintf(text, 32, "%s KB", out);
    free_text(out);
    return text;
}

static uint32_t memory_bytes(const char *cmd)
{
    char *out = run_shell_command(cmd, 10);
    uint32_t bytes = out == SHELL_ERROR_TEXT ? 0 : kilobytes_text_to_bytes(out);
    free_text(out);
    return bytes;
}

static const char kFreeCmd[] = "free | awk '/^Mem/ {print $4}' | tr -d '\\n'";
static const char kUsedCmd[] = "free | awk '/^Mem/ {print $3}' | tr -d '\\n'";

char *get_free_memory_text(void) { return memory_text(kFreeCmd); }
uint32_t get_free_memory_bytes(void) { return memory_bytes(kFreeCmd); }
char *get_used_memory_text(void) { return memory_text(kUsedCmd); }
uint32_t get_used_memory_bytes(void) { return memory_bytes(kUsedCmd); }

char *compact_timestamp(const char *dateTime)
{
    size_t n = strlen(dateTime);
    n = n >= 3 ? n - 3 : 0;
    char *out = static_cast<char *>(malloc(n + 1));
    size_t o = 0;
    for (size_t i = 0; i < n; i++) {
        char c = dateTime[i];
        if (c == '/' || c == ':' || c == ' ' || c == '-' || c == 'T')
            continue;
        out[o++] = c;
    }
    out[o] = '\0';
    if (o > 12)
        out[12] = '\0';
    return out;
}
