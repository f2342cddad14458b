/*
 * The device's time: "dxGetTimeSettings" and "dxSetTimeSettings" report and
 * change the time zone (by its UTC offset, "-5:00") and the daylight-saving
 * switch, and the periodic synchronisation with the time server every
 * "korvatCloud.korvatCloud.ts_autoUpdate" period (a maintenance-timer
 * check).  A change is staged in UCI; the apply step commits and applies it
 * once its reply is queued.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"
#include "client/timer.h"

#include <cstdlib>
#include <cstring>

#include "client/reply.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/settings.h"
#include "util/time_zone.h"

/* ---- helpers ---- */

static const char kDaylightEnable[] = "ntpclient.daylightsaving.DayLightEnable";

/*
 * A text parameter that may be left out: *text is NULL when the member is
 * absent or empty (nothing to change).  A member that is there but is no
 * string is not valid: 0, else 1.
 */
static int optionalText(const cJSON *params, const char *name, const char **text)
{
    *text = NULL;
    const cJSON *item = jsonGetItem(params, name);
    if (item == NULL)
        return 1;
    const char *value = jsonGetString(params, name);
    if (value == NULL)
        return 0;
    if (value[0] != '\0')
        *text = value;
    return 1;
}

/* "enabled" is 1, "disabled" 0 (exactly so written); any other word -1. */
static int daylightSavingsSwitch(const char *word)
{
    if (strcmp(word, "enabled") == 0)
        return 1;
    if (strcmp(word, "disabled") == 0)
        return 0;
    return -1;
}

/* ---- handlers ---- */

void dxGetTimeSettingsHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    /* a zone code that no row of the table begins with has no offset */
    char *offset = get_timezone_offset();
    jsonAddString(result, "timeZone", offset != NULL ? offset : "");
    free_text(offset);
    char *now = get_iso_timestamp(1);
    jsonAddString(result, "currentTime", now);
    free_text(now);
    /* a missing option reads -1: enabled */
    jsonAddString(result, "daylightSavings",
                  uci_get_int(kDaylightEnable) != 0 ? "enabled" : "disabled");
    replyResult(reply);
    KC_DEBUG("=== END ===\n");
}

void dxSetTimeSettingsHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    /* "currentTime" may come along: the device keeps its own clock */
    const char *zone = NULL;
    const char *daylight = NULL;
    if (!optionalText(params, "timeZone", &zone) ||
        !optionalText(params, "daylightSavings", &daylight)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }

    /* everything is checked before the first write */
    int daylightOn = -1;
    if (daylight != NULL) {
        daylightOn = daylightSavingsSwitch(daylight);
        if (daylightOn < 0) {
            replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
            return;
        }
    }
    char *code = NULL;
    if (zone != NULL) {
        code = find_timezone_code(zone);
        if (code == NULL) {
            replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
            return;
        }
    }

    if (code != NULL)
        uci_set("system.system.timezone", code);
    free_text(code);
    if (daylightOn >= 0)
        uci_set_int(kDaylightEnable, daylightOn);

    replyDeviceId(request);
    /* the reply is queued; the apply step does not wait for it to leave */
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}

/* ---- periodic check ---- */

void timeSyncCheck(int tick)
{
    int period = g_timeSyncPeriod;
    if (period <= 0 || (tick - g_timeSyncBase) % period != 0)
        return;
    if (g_debugFlag)
        run_system_command("date >> /tmp/ts_autoupdate");
    run_system_command("luci-reload ntpclient");
}
