/*
 * Periodic status updates ("dsLogStatusUpdates"): a long-lived thread wakes
 * once a status period ("korvatCloud.korvatCloud.auto_update", 60 s by
 * default, read again at every update) and starts a short-lived thread that
 * gathers the CPU figure, memory, LAN and radio counters and puts one
 * notification on the status queue.  While the web configuration reloads,
 * while the status queue is full, or while the last update is still being
 * gathered, a period is skipped; updates never queue up behind each other.
 * The connection manager starts the long-lived thread (setStatusUpdater);
 * the debug lines and the assertion carry its module name, as they always
 * have.
 */
#define KC_MODULE "nimb_sdk.cpp"
#include "client/status_updates.h"

#include <cjson/cJSON.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <atomic>

#include "client/events.h"
#include "client/script_answers.h"
#include "json/accessors.h"
#include "linux/thread.h"
#include "sdk/nimb_sdk.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/settings.h"

static std::atomic<int> s_statusPeriod{60};
/* 1 while an update is being gathered: a device command that hangs (the
 * utility script) must not leave one stalled thread, with its children,
 * per period. */
static std::atomic<int> s_updateInFlight{0};

/* The period from UCI when it is a positive number; kept otherwise. */
static void readStatusPeriod(void)
{
    char *out = run_shell_command("uci get korvatCloud.korvatCloud.auto_update | tr -d '\\n'", 100);
    int value = atoi(out);
    if (value > 0)
        s_statusPeriod = value;
    free_text(out);
}

int statusPeriod(void)
{
    return s_statusPeriod;
}

int memory_alarm_quotient(uint32_t memUsed, uint32_t memFree)
{
    int64_t usedK = memUsed / 1024;
    int64_t freeK = memFree / 1024;
    if (usedK + freeK == 0)
        return 0;
    /* 64-bit: used kilobytes times 10000 overflows 32 bits for ordinary
     * memory sizes */
    return (int)(usedK * 10000 / (usedK + freeK));
}

/* Gathers one update and puts it on the status queue (its debug lines and
 * assertion carry this function's name). */
static void logStatusUpdates(void)
{
    KC_DEBUG_AT(120, "<< pthread create and start >>\n");
    readStatusPeriod();
    calculateCPUUsage();

    cJSON *params = NULL;
    cJSON *root = notificationEnvelope("dsLogStatusUpdates", &params);
    KC_ASSERT_AT(138, NULL != root, "((void *)0) != root");
    cJSON *updates = jsonCreateArray();
    jsonAddItem(params, "updates", updates);

    cJSON *update = jsonCreateObject();
    char *now = get_iso_timestamp(1);
    jsonAddString(update, "dateTime", now);
    free_text(now);

    cJSON *system = jsonCreateObject();
    uint32_t memFree = get_free_memory_bytes();
    uint32_t memUsed = get_used_memory_bytes();
    jsonAddInt(system, "cpu", get_cpu_usage());
    jsonAddNumber(system, "memFree", memFree);
    jsonAddNumber(system, "memUsed", memUsed);
    jsonAddItem(update, "system", system);

    int quotient = memory_alarm_quotient(memUsed, memFree);
    KC_DEBUG("memUsedK:(%d), memFreeK:(%d), (%d)\n", (int)(memUsed / 1024),
             (int)(memFree / 1024), quotient);
    if (quotient >= 9001)
        run_system_command("logger \"Memory usage greater then 90%.\"");

    cJSON *lan = jsonCreateObject();
    addScriptNumber(lan, "rx", "GetSysTxRx eth0 0 rx bytes");
    addScriptNumber(lan, "tx", "GetSysTxRx eth0 0 tx bytes");
    jsonAddItem(update, "lan", lan);

    char *wifiInfo = scriptAnswer("WifiInfo", SCRIPT_JSON_LIMIT);
    int radios = addRadioObjects(update, wifiInfo, STATUS_UPDATE_ORDER);
    free_text(wifiInfo);
    if (radios < 0) {
        /* more radios than the device can have: no update this period */
        jsonDelete(update);
        jsonDelete(root);
        return;
    }
    jsonAddToArray(updates, update);
    writeJsonStatus(root);
    KC_DEBUG_AT(272, "<< pthread exit >>\n");
}

/* Body of the short-lived thread of one update. */
static void *statusUpdateThread(void *)
{
    logStatusUpdates();
    s_updateInFlight = 0;
    return NULL;
}

void *dsLogStatusUpdatesHandler(void *)
{
    KC_DEBUG_AT(292, "<< pthread create and start >>\n");
    readStatusPeriod();
    calculateCPUUsage();
    for (;;) {
        /* nanosleep, resumed after a signal: a whole period each time */
        struct timespec wait = {s_statusPeriod.load(), 0};
        while (nanosleep(&wait, &wait) == -1 && errno == EINTR)
            ;
        if (g_luciReloadPause) {
            KC_DEBUG_AT(316, "=== luci-reloading......\n");
            continue;
        }
        if (sendQueueFreeSlots(SEND_QUEUE_STATUS) < 1)
            continue;
        /* at most one update in flight: the period is skipped while the
         * last one is still gathering */
        if (s_updateInFlight.exchange(1) != 0)
            continue;
        pthread_t thread;
        if (createThread(&thread, statusUpdateThread, NULL, 1) != 0)
            s_updateInFlight = 0;
    }
    return NULL;
}
